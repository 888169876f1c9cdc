# Completion of zentrava-keystore for bash.

# The options of a command, beside the common ones.
_zentrava_keystore_options() {
    case $1 in
        init) echo --missing ;;
        list) echo --uid --name --file ;;
        show) echo --handle --file --reveal ;;
        add) echo --from --raw --slot --file --metadata --replace ;;
        generate) echo --type --slot --public-key --verifier --verifier-name --metadata --replace ;;
        provision) echo --format --dry-run --replace ;;
        copy) echo --handle --file --as --to --metadata --replace ;;
        rename) echo --handle --file --as ;;
        delete) echo --handle --file ;;
        import) echo --from --passphrase-file --public --slot --file --metadata --replace ;;
        export) echo --handle --file --output --format --form --public --reveal ;;
        check) echo --strict ;;
        backup | restore) ;;
    esac
}

# The values of an option, as far as they are known; fails for an option without a value.
_zentrava_keystore_values() {
    local command=$1 option=$2 word=$3
    case $option in
        --file) compgen -W 'private public' -- "$word" ;;
        --type) compgen -W 'hmac p256' -- "$word" ;;
        --form) compgen -W 'pkcs8 sec1' -- "$word" ;;
        --format)
            if [[ $command == provision ]]; then
                compgen -W 'csv json' -- "$word"
            else
                compgen -W 'pem der' -- "$word"
            fi
            ;;
        --dir) compgen -d -- "$word" ;;
        --from | --public-key | --passphrase-file | --output) compgen -f -- "$word" ;;
        --uid | --name | --handle | --slot | --metadata | --verifier | --verifier-name | --as | --to) ;;
        *) return 1 ;;
    esac
}

_zentrava_keystore() {
    local commands='init list show add generate provision copy rename delete import export check
        backup restore'
    local common='--dir --quiet --json --version --help'
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i - 1]} != --dir && " ${commands//$'\n'/ } " == *" ${COMP_WORDS[i]} "* ]]; then
            command=${COMP_WORDS[i]}
            break
        fi
    done
    COMPREPLY=()
    local values
    if values=$(_zentrava_keystore_values "$command" "$previous" "$word"); then
        [[ -z $values ]] || mapfile -t COMPREPLY <<<"$values"
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(
            compgen -W "$common $(_zentrava_keystore_options "$command")" -- "$word"
        )
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
    else
        case $command in
            provision) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
            backup | restore) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        esac
    fi
}

complete -o filenames -F _zentrava_keystore zentrava-keystore
