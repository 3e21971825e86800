# Sourced by the other scripts: installs what is missing on a Debian machine. Works as root, and as an ordinary
# user with sudo for the packages alone.

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Another installation on this machine is waited for, in seconds.
patiently=(-o DPkg::Lock::Timeout=300)

# need_packages package...: installs those that are not there yet.
need_packages() {
    local missing=()
    local package
    for package in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "Installing: ${missing[*]}"
        as_root apt-get "${patiently[@]}" update -qq
        as_root env DEBIAN_FRONTEND=noninteractive apt-get "${patiently[@]}" install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
    fi
}

build_packages=(g++ cmake ninja-build ccache pkg-config libasio-dev libxml2-dev libsqlite3-dev libssl-dev
    libfmt-dev libfltk1.3-dev libcli11-dev nlohmann-json3-dev prometheus-cpp-dev libcpp-httplib-dev sqlite3 unixodbc-dev
    libkrb5-dev libwbclient-dev dpkg-dev)
test_packages=(libgtest-dev libgmock-dev clang-14 clang-format-14 clang-tidy-14 shellcheck libclang-rt-14-dev python3-impacket iproute2
    util-linux xvfb python3-xlib postgresql odbc-postgresql mariadb-server odbc-mariadb chromium
    samba samba-ad-dc samba-ad-provision samba-dsdb-modules python3-samba krb5-user winbind)
bench_packages=(libbenchmark-dev libpq-dev postgresql odbc-postgresql python3)

need_build_tools() {
    need_packages "${build_packages[@]}"
}

# promtool alone out of Debian's package, which would start a Prometheus on this machine.
need_promtool() {
    [ ! -x build/tools/promtool ] || return 0
    mkdir -p build/tools
    as_root apt-get "${patiently[@]}" update -qq
    (cd build/tools && apt-get download -qq prometheus && dpkg-deb --fsys-tarfile prometheus_*.deb | tar -xO ./usr/bin/promtool >promtool.new)
    chmod 755 build/tools/promtool.new
    mv build/tools/promtool.new build/tools/promtool
    rm build/tools/prometheus_*.deb
}

# The third-party OPC client out of the npm registry, as the lock file fixes it.
need_opc_client() {
    if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
        need_packages nodejs npm
    fi
    if [ ! -e demo/client/node_modules/.package-lock.json ] ||
        [ demo/client/package-lock.json -nt demo/client/node_modules/.package-lock.json ]; then
        (cd demo/client && npm ci --ignore-scripts --no-audit --no-fund --silent)
    fi
}
