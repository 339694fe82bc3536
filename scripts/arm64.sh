# Packages of Debian for arm64, without touching those of this machine; source it after common.sh.
# shellcheck shell=bash disable=SC2034,SC2154

arm64_sysroot=$root/build/arm64-sysroot
arm64_kernel=$root/build/arm64-kernel
arm64_log=$root/build/arm64-apt.log

# What the arm64 preset builds against; the C and C++ headers come with the cross compiler.
arm64_sysroot_packages=(
    libboost-filesystem1.74-dev libboost-log1.74-dev libboost-thread1.74-dev
    libcli11-dev libfuse3-dev libgpiod-dev libpci-dev libsystemd-dev libyaml-cpp-dev nlohmann-json3-dev
    libgmock-dev libgtest-dev pci.ids
)

# arm64_apt COMMAND...: runs an apt command that knows the packages for arm64, and as foreign ones those for
# this machine, and believes nothing to be installed.
arm64_apt() {
    local state=$root/build/arm64-apt
    if [ ! -e "$state/apt.conf" ]; then
        mkdir -p "$state/lists/partial" "$state/archives/partial"
        : >"$state/status"
        cat >"$state/apt.conf" <<CONF
APT::Architecture "arm64";
APT::Architectures { "arm64"; "$(dpkg --print-architecture)"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Dir::State "$state";
Dir::State::Lists "$state/lists";
Dir::State::status "$state/status";
Dir::Cache "$state";
CONF
    fi
    APT_CONFIG=$state/apt.conf "$@"
}

# arm64_fetch COMMAND...: runs an apt command that downloads, and shows how far it is.
arm64_fetch() {
    run_logged "$arm64_log" "$counts_of_apt" arm64_apt "$@" -o APT::Status-Fd=1 || arm64_fail
}

arm64_fail() {
    fail "Debian's packages for arm64 can't be fetched: $(first_error "$arm64_log")
$network_remedy" "$unfetched"
}

# arm64_unpack FOLDER PACKAGE...: unpacks the packages, and all that they depend on, into the folder. A folder
# that holds just these packages stays as it is.
arm64_unpack() {
    local folder=$1
    shift
    [ "$(cat "$folder/.packages" 2>/dev/null)" != "$*" ] || return 0
    rm -rf "$folder"
    arm64_start "$folder"
    arm64_fetch apt-get install -y --download-only -o Dir::Cache::archives="$folder.new/.archives" "$@"
    arm64_finish "$folder" "$*"
}

# arm64_unpack_kernel: makes build/arm64-kernel of the newest kernel, with its modules and what others are
# built with, and of the programs of a small system. A kernel that is there stays.
arm64_unpack_kernel() {
    local image headers common kbuild new=$arm64_kernel.new
    [ ! -e "$arm64_kernel/.packages" ] || return 0
    arm64_start "$arm64_kernel"
    image=$(arm64_dependency linux-image-arm64 linux-image-)
    headers=$(arm64_dependency linux-headers-arm64 linux-headers-)
    common=$(arm64_dependency "$headers" linux-headers-)
    kbuild=$(arm64_dependency "$headers" linux-kbuild-)
    # The tools that build modules run on this machine.
    set -- "$image" "$headers" "$common" "$kbuild:$(dpkg --print-architecture)" busybox-static
    (cd "$new/.archives" && arm64_fetch apt-get download "$@")
    arm64_finish "$arm64_kernel" "$*"
}

# arm64_dependency PACKAGE PREFIX: the package with that beginning of its name that the package depends on.
arm64_dependency() {
    arm64_apt apt-cache depends "$1" | sed -n "s/^ *Depends: \($2.*\)/\1/p" | head -n 1
}

# arm64_start FOLDER: makes FOLDER.new with an empty folder for package files.
arm64_start() {
    echo "Fetching arm64 packages into ${1#"$root/"} ..."
    rm -rf "$1.new"
    mkdir -p "$1.new/.archives/partial"
    arm64_fetch apt-get update
    # A source without arm64 is not needed.
    grep -qE '^(Hit|Get):' "$arm64_log" || arm64_fail
}

# arm64_finish FOLDER PACKAGES: unpacks the package files and renames FOLDER.new.
arm64_finish() {
    local new=$1.new archive link
    for archive in "$new"/.archives/*.deb; do
        dpkg -x "$archive" "$new"
    done
    rm -r "$new/.archives"
    # Absolute links would lead to the files of this machine.
    find "$new" -type l -lname '/*' | while read -r link; do
        ln -sfrn "$new$(readlink "$link")" "$link"
    done
    echo "$2" >"$new/.packages"
    mv "$new" "$1"
}
