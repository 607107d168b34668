# Expected answers from tools that share nothing with the code under test: the file version of some Wine DLLs
# as windres reads it, and the strong-name token of public_key.bin (its SHA-1's last eight bytes, reversed).
#   sh build_fixtures.sh <fixture sources> <fixture output> <windres> <Wine's x64 PE folder>
set -eu
mkdir -p "$2/version" "$2/appservices"
cp "$1/version/not_an_image.txt" "$2/version/not_an_image.dll"
for name in kernel32.dll version.dll ole32.dll wininet.dll msxml6.dll; do
    rc=$("$3" -i "$4/$name" -O rc)
    echo "$rc" | sed -n "/FILEVERSION/{s/.*FILEVERSION \([0-9]*\), \([0-9]*\), \([0-9]*\), \([0-9]*\).*/$name=\1.\2.\3.\4/p;q}"
done > "$2/version/system_versions.txt"
tr -cd 0-9a-fA-F < "$1/appservices/public_key.hex" | perl -e 'print pack("H*", <STDIN>)' > "$2/appservices/public_key.bin"
sha1sum -b "$2/appservices/public_key.bin" | cut -c25-40 | fold -w2 | tac | tr -d '\n' > "$2/appservices/public_key.token"
