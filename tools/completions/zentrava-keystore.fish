# Completion of zentrava-keystore for fish.

set -l commands init list show add generate provision copy rename delete import export check backup restore
set -l tool complete -c zentrava-keystore

$tool -f
$tool -l dir -x -a '(__fish_complete_directories)' -d "The store's directory"
$tool -l quiet -s q -d "Print results only, no messages"
$tool -l json -d "Print JSON, for programs"
$tool -l version -d "Print the version and exit"
$tool -l help -s h -d "Print help and exit"

$tool -n "not __fish_seen_subcommand_from $commands" -a init -d "Make both store files, empty"
$tool -n "not __fish_seen_subcommand_from $commands" -a list -d "Show the keys as a table"
$tool -n "not __fish_seen_subcommand_from $commands" -a show -d "Show one key"
$tool -n "not __fish_seen_subcommand_from $commands" -a add -d "Add a key from a file or standard input"
$tool -n "not __fish_seen_subcommand_from $commands" -a generate -d "Make a random HMAC key or a P-256 key pair"
$tool -n "not __fish_seen_subcommand_from $commands" -a provision -d "Add the keys of a manifest, all of them or none"
$tool -n "not __fish_seen_subcommand_from $commands" -a copy -d "Copy a key"
$tool -n "not __fish_seen_subcommand_from $commands" -a rename -d "Give a key another name"
$tool -n "not __fish_seen_subcommand_from $commands" -a delete -d "Delete a key"
$tool -n "not __fish_seen_subcommand_from $commands" -a import -d "Add a P-256 key from a PEM or DER file"
$tool -n "not __fish_seen_subcommand_from $commands" -a export -d "Write a P-256 key to a PEM or DER file"
$tool -n "not __fish_seen_subcommand_from $commands" -a check -d "Tell what in the store would surprise the library"
$tool -n "not __fish_seen_subcommand_from $commands" -a backup -d "Copy both files, with their permissions"
$tool -n "not __fish_seen_subcommand_from $commands" -a restore -d "Bring both files back from an undamaged backup"

$tool -n '__fish_seen_subcommand_from init' -l missing -d "Make only the file that is missing"

$tool -n '__fish_seen_subcommand_from list' -l uid -x -d "Only of this UID"
$tool -n '__fish_seen_subcommand_from list' -l name -x -d "Only of this key name"
$tool -n '__fish_seen_subcommand_from list' -l file -x -a 'private public' -d "Only those of this file"

$tool -n '__fish_seen_subcommand_from show' -l handle -x -d "The key's handle, in place of UID and NAME"
$tool -n '__fish_seen_subcommand_from show' -l file -x -a 'private public' -d "Look in this file only"
$tool -n '__fish_seen_subcommand_from show' -l reveal -d "Show the key text as well"

$tool -n '__fish_seen_subcommand_from add' -l from -r -F -d "Where the key is"
$tool -n '__fish_seen_subcommand_from add' -l raw -d "It is there as bytes"
$tool -n '__fish_seen_subcommand_from add' -l slot -x -d "KTS slot of ecdsa_prv or ecdh_prv"
$tool -n '__fish_seen_subcommand_from add' -l file -x -a 'private public' -d "Where it goes"
$tool -n '__fish_seen_subcommand_from add' -l metadata -x -d "Free text that is kept with the key"
$tool -n '__fish_seen_subcommand_from add' -l replace -d "Replace a key of this UID and name"

$tool -n '__fish_seen_subcommand_from generate' -l type -x -a 'hmac p256' -d "What to make"
$tool -n '__fish_seen_subcommand_from generate' -l slot -x -d "KTS slot of ecdsa_prv or ecdh_prv"
$tool -n '__fish_seen_subcommand_from generate' -l public-key -r -F -d "Public key as PEM"
$tool -n '__fish_seen_subcommand_from generate' -l verifier -x -d "Also store the public key for this UID"
$tool -n '__fish_seen_subcommand_from generate' -l verifier-name -x -d "Under this name"
$tool -n '__fish_seen_subcommand_from generate' -l metadata -x -d "Free text that is kept with the key"
$tool -n '__fish_seen_subcommand_from generate' -l replace -d "Replace a key of this UID and name"

$tool -n '__fish_seen_subcommand_from provision' -l format -x -a 'csv json' -d "What the manifest is written in"
$tool -n '__fish_seen_subcommand_from provision' -l dry-run -d "Check everything, and change nothing"
$tool -n '__fish_seen_subcommand_from provision' -l replace -d "Replace a key of this UID and name"
$tool -n '__fish_seen_subcommand_from provision' -F

$tool -n '__fish_seen_subcommand_from copy' -l handle -x -d "The key's handle, in place of UID and NAME"
$tool -n '__fish_seen_subcommand_from copy' -l file -x -a 'private public' -d "Look in this file only"
$tool -n '__fish_seen_subcommand_from copy' -l as -x -d "The new name"
$tool -n '__fish_seen_subcommand_from copy' -l to -x -d "The UID of the copy"
$tool -n '__fish_seen_subcommand_from copy' -l metadata -x -d "Free text that is kept with the key"
$tool -n '__fish_seen_subcommand_from copy' -l replace -d "Replace a key of this UID and name"

$tool -n '__fish_seen_subcommand_from rename' -l handle -x -d "The key's handle, in place of UID and NAME"
$tool -n '__fish_seen_subcommand_from rename' -l file -x -a 'private public' -d "Look in this file only"
$tool -n '__fish_seen_subcommand_from rename' -l as -x -d "The new name"

$tool -n '__fish_seen_subcommand_from delete' -l handle -x -d "The key's handle, in place of UID and NAME"
$tool -n '__fish_seen_subcommand_from delete' -l file -x -a 'private public' -d "Look in this file only"

$tool -n '__fish_seen_subcommand_from import' -l from -r -F -d "Where the key is"
$tool -n '__fish_seen_subcommand_from import' -l passphrase-file -r -F -d "Its first line opens the key"
$tool -n '__fish_seen_subcommand_from import' -l public -d "Take the public key only"
$tool -n '__fish_seen_subcommand_from import' -l slot -x -d "KTS slot of ecdsa_prv or ecdh_prv"
$tool -n '__fish_seen_subcommand_from import' -l file -x -a 'private public' -d "Where it goes"
$tool -n '__fish_seen_subcommand_from import' -l metadata -x -d "Free text that is kept with the key"
$tool -n '__fish_seen_subcommand_from import' -l replace -d "Replace a key of this UID and name"

$tool -n '__fish_seen_subcommand_from export' -l handle -x -d "The key's handle, in place of UID and NAME"
$tool -n '__fish_seen_subcommand_from export' -l file -x -a 'private public' -d "Look in this file only"
$tool -n '__fish_seen_subcommand_from export' -l output -r -F -d "Where it goes"
$tool -n '__fish_seen_subcommand_from export' -l format -x -a 'pem der' -d "How it is written"
$tool -n '__fish_seen_subcommand_from export' -l form -x -a 'pkcs8 sec1' -d "The structure of a private key"
$tool -n '__fish_seen_subcommand_from export' -l public -d "Write the public key of a private one"
$tool -n '__fish_seen_subcommand_from export' -l reveal -d "Write a private key to a terminal as well"

$tool -n '__fish_seen_subcommand_from check' -l strict -d "Take warnings for errors"

$tool -n '__fish_seen_subcommand_from backup' -a '(__fish_complete_directories)'

$tool -n '__fish_seen_subcommand_from restore' -a '(__fish_complete_directories)'
