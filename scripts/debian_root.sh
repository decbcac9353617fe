#!/bin/sh
# Unpacks packages of Debian with all that they depend on into a folder, for any of Debian's machines, with lists of its
# own: this machine learns nothing, and no rights are needed. No maintainer script runs.
#   scripts/debian_root.sh ARCHITECTURE FOLDER PACKAGE...     PACKAGE-: is left out, whoever depends on it
# The folder's dpkg knows them as installed (dpkg --root FOLDER); in FOLDER/DEBIAN stands, for dpkg-shlibdeps -S FOLDER,
# which package each library belongs to.
set -eu
architecture=$1 packages=$2
mkdir -p "$packages"
root=$(cd "$packages" && pwd)
shift 2
[ "$(cat "$root/unpacked" 2> /dev/null)" != "$*" ] || exit 0

rm -rf "$root"
apt=$root/apt dpkg=$root/var/lib/dpkg
mkdir -p "$apt/lists/partial" "$apt/archives/partial" "$dpkg/info" "$dpkg/updates" "$dpkg/triggers" "$root/DEBIAN"
: > "$dpkg/status"
cat > "$apt/conf" << END
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Sandbox::User "";
Debug::NoLocking "true";
Dir::State "$apt";
Dir::State::status "$dpkg/status";
Dir::Cache "$apt";
END
export APT_CONFIG="$apt/conf"
whole=yes
apt-get -q update || { whole=no; echo "debian_root.sh: apt-get update failed; going on with what it fetched" >&2; }
left_out=' '
for package; do
    case $package in *-) left_out="$left_out${package%-} " ;; *) wanted="${wanted-} $package" ;; esac
done
# shellcheck disable=SC2086  # a list of names
apt-get -q install -y --no-install-recommends --no-remove --download-only $wanted

for package in "$apt"/archives/*.deb; do
    name=$(dpkg-deb -f "$package" Package)
    case $left_out in *" $name "*) continue ;; esac
    [ "$(dpkg-deb -f "$package" Multi-Arch)" != same ] || name=$name:$architecture
    dpkg-deb -x "$package" "$root"
    { dpkg-deb -f "$package" && printf 'Status: install ok installed\n\n'; } >> "$dpkg/status"
    dpkg-deb --fsys-tarfile "$package" | tar -t | sed 's|^\./$|/.|; s|^\./|/|; s|/$||' > "$dpkg/info/$name.list"
    for file in shlibs symbols; do dpkg-deb -I "$package" $file >> "$root/DEBIAN/$file" 2> /dev/null || true; done
done
# A link to the machine's own root is to stay in this one.
find "$root" -type l -lname '/*' | while read -r link; do ln -sfnr "$root$(readlink "$link")" "$link"; done
rm -rf "$apt"
[ "$whole" = no ] || echo "$*" > "$root/unpacked"  # else it is fetched again the next time
