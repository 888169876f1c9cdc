# Shell functions that make a sysroot out of Debian's packages for another architecture; sourced, after
# lib.sh, by the scripts that are named after what they make.
# shellcheck shell=bash

# The library's dependencies and what its tests and benchmarks link to, with the C and C++ runtime.
sysroot_packages=(
    libc6-dev libstdc++6
    libxml2-dev zlib1g-dev liblzma-dev libmbedtls-dev libcli11-dev nlohmann-json3-dev
    libgtest-dev libgmock-dev libssl-dev libgmp-dev libbearssl-dev libbenchmark-dev
)

# The machine's sources, proxies and keys stay in force, its package state and its hooks do not.
# With nothing counted as installed, apt works out the whole closure down to the C library.
write_apt_configuration() {
    local architecture=$1 work=$2
    mkdir -p "$work/state/lists/partial" "$work/cache/archives/partial"
    : >"$work/status"
    cat >"$work/apt.conf" <<-END
		APT::Architecture "$architecture";
		APT::Architectures { "$architecture"; };
		APT::Install-Recommends "false";
		APT::Sandbox::User "root";
		Debug::NoLocking "true";
		Dir::State "$work/state";
		Dir::State::status "$work/status";
		Dir::Cache "$work/cache";
		#clear APT::Update::Pre-Invoke;
		#clear APT::Update::Post-Invoke;
		#clear APT::Update::Post-Invoke-Success;
	END
}

download_packages() {
    local architecture=$1 work=$2
    write_apt_configuration "$architecture" "$work"
    # One index that fails to load need not concern the packages at hand; the download will tell.
    apt-get -q -c "$work/apt.conf" update >&2 ||
        say "apt-get update was not wholly successful; going on with the indexes there are"
    apt-get -q -c "$work/apt.conf" -y --download-only install "${sysroot_packages[@]}" >&2 ||
        die "apt-get could not fetch, for $architecture: ${sysroot_packages[*]} (or something they depend on)"
}

unpack_packages() {
    local archives=$1 sysroot=$2 archive
    for archive in "$archives"/*.deb; do
        dpkg -x "$archive" "$sysroot"
    done
}

# The packages count as installed there, as far as dpkg is asked for the owner of a file, a
# dependency, or the symbols of a library.
record_packages() {
    local architecture=$1 archives=$2 database=$3/var/lib/dpkg control=$4 archive name file
    mkdir -p "$database/info" "$database/updates" "$database/triggers"
    echo 1 >"$database/info/format"
    echo "$architecture" >"$database/arch"
    for archive in "$archives"/*.deb; do
        rm -rf "$control"
        dpkg-deb --control "$archive" "$control"
        # shellcheck disable=SC2016 # dpkg-deb's placeholder
        name=$(dpkg-deb --show --showformat='${Package}' "$archive")
        ! grep -q '^Multi-Arch: same' "$control/control" || name+=":$architecture"
        dpkg-deb --fsys-tarfile "$archive" | tar --list | sed 's,^\.,,; s,/$,,; s,^$,/.,' >"$database/info/$name.list"
        for file in symbols shlibs md5sums; do
            [[ ! -f $control/$file ]] || cp "$control/$file" "$database/info/$name.$file"
        done
        sed '1a Status: install ok installed' "$control/control" >>"$database/status"
        echo >>"$database/status"
    done
}

# An absolute link would lead out of the sysroot, into the building machine's own files.
make_links_relative() {
    local sysroot=$1 link target
    while IFS= read -r -d '' link; do
        target=$sysroot$(readlink "$link")
        ln -sfn "$(realpath -ms --relative-to="$(dirname "$link")" "$target")" "$link"
    done < <(find "$sysroot" -type l -lname '/*' -print0)
}

# make_sysroot ARCHITECTURE DIRECTORY: does nothing when the directory holds a complete sysroot.
make_sysroot() {
    local architecture=$1 sysroot=$2 lock stamp contents="${sysroot_packages[*]}; their database"
    mkdir -p "$(dirname "$sysroot")"
    sysroot=$(realpath -s "$sysroot")
    stamp=$sysroot/.packages

    # Whoever comes second waits, and then finds the work done.
    exec {lock}<"$(dirname "$sysroot")"
    flock "$lock"
    if [[ -f $stamp && $(<"$stamp") == "$contents" ]]; then
        return
    fi
    if [[ -e $sysroot && ! -f $stamp && -n $(ls -A "$sysroot") ]]; then
        die "$sysroot exists and is not of my making; remove it or name another directory"
    fi

    # Built beside its place and moved there whole: what lies at its place is never half a sysroot.
    work=$sysroot.partial
    rm -rf "$work"
    trap 'rm -rf "$work"' EXIT
    say "making $sysroot"
    download_packages "$architecture" "$work"
    unpack_packages "$work/cache/archives" "$work/root"
    record_packages "$architecture" "$work/cache/archives" "$work/root" "$work/control"
    make_links_relative "$work/root"
    printf '%s\n' "$contents" >"$work/root/.packages"
    rm -rf "$sysroot"
    mv "$work/root" "$sysroot"
}
