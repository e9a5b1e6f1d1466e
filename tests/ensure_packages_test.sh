#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# tools/ensure-packages against a machine of stand-ins: dpkg answers from a
# list of installed package copies ("name architecture"), apt-get records
# what it is asked to install. A name without an architecture is the
# machine's own; a copy for arm64 does not count for it.
set -eu
tool=$(cd "$(dirname "$0")/.." && pwd)/tools/ensure-packages
fake=$(mktemp -d)
trap 'rm -rf "$fake"' EXIT
cat >"$fake/dpkg-query" <<'EOF'
#!/bin/sh
name=${3%%:*}
case "$3" in *:*) only=${3#*:} ;; *) only= ;; esac
found=1
while read -r package architecture; do
    if [ "$package" = "$name" ] && { [ -z "$only" ] || [ "$only" = "$architecture" ]; }; then
        echo "install ok installed $architecture"; found=0
    fi
done <"$FAKE_INSTALLED"
exit $found
EOF
cat >"$fake/dpkg" <<'EOF'
#!/bin/sh
case "$1" in
--print-architecture) echo amd64 ;;
--print-foreign-architectures) echo arm64 ;;
esac
EOF
cat >"$fake/apt-get" <<'EOF'
#!/bin/sh
case " $* " in *" install "*) echo "$*" | sed 's/.* install -y -qq --no-install-recommends//' >>"$FAKE_APT" ;; esac
EOF
printf '#!/bin/sh\necho 0\n' >"$fake/id"
chmod +x "$fake"/*
failed=0
# packages asked | copies installed | what apt-get must install
check() {
    printf '%s\n' "$2" | tr ',' '\n' >"$fake/installed"
    : >"$fake/apt"
    FAKE_INSTALLED=$fake/installed FAKE_APT=$fake/apt PATH=$fake:$PATH "$tool" $1 >/dev/null
    got=$(tr -s ' ' <"$fake/apt" | sed 's/^ //')
    if [ "$got" != "$3" ]; then
        echo "ensure-packages $1 with [$2] installed \"$got\", expected \"$3\""; failed=1
    fi
}
check "android-liblog-dev" "android-liblog-dev arm64" "android-liblog-dev"
check "android-liblog-dev" "android-liblog-dev amd64,android-liblog-dev arm64" ""
check "nlohmann-json3-dev googletest" "nlohmann-json3-dev all,googletest all" ""
check "libgtest-dev:arm64 libgtest-dev" "libgtest-dev amd64" "libgtest-dev:arm64"
check "cmake libgtest-dev" "" "cmake libgtest-dev"
[ $failed -eq 0 ] && echo "ensure-packages: a name without an architecture is the machine's own"
exit $failed
