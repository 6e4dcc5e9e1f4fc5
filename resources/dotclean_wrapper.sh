#!/bin/sh
# Removes the dot files of a mounted volume: "._*" companion files and ".DS_Store" files, both
# regular files, nothing else. It neither follows symbolic links nor leaves the volume's file
# system.
#
# Usage: dotclean_wrapper.sh <volume name> <mount path>
#
# The plugin follows the run through $VELM_ROOT/var/run/dotclean_status_<volume>.plist, replaced
# whole each time (temporary file, then mv) because a half-written file reads as "finished".
# updateErrorStatus is the exit status: 0 done; 1 done, but some dot files could not be removed
# (find said why on standard error); 22 refused arguments; 74 no status file could be written.

volume=${1-}
mount=${2-}
status_file=

# write_status message percent error
write_status() {
	tmp="$status_file.$$.tmp"
	cat >"$tmp" <<EOF || return 1
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>updateErrorStatus</key>
	<integer>$3</integer>
	<key>updateProgressionMessage</key>
	<string>$1</string>
	<key>updateProgressionPID</key>
	<integer>$$</integer>
	<key>updateProgressionStage</key>
	<integer>0</integer>
	<key>updateProgressionStageCount</key>
	<integer>1</integer>
	<key>updateProgressionStatus</key>
	<integer>$2</integer>
</dict>
</plist>
EOF
	mv -f "$tmp" "$status_file" || { rm -f "$tmp"; return 1; }
}

# refuse status message
refuse() {
	echo "dotclean_wrapper.sh: $2" >&2
	[ -n "$status_file" ] && write_status "$2" 100 "$1"
	exit "$1"
}

case $volume in
'' | . | .. | */*) refuse 22 "refusing volume name '$volume'" ;;
esac
status_file="${VELM_ROOT-}/var/run/dotclean_status_$volume.plist"

if [ -z "$mount" ] || [ ! -d "$mount" ]; then
	refuse 22 "mount path '$mount' is not a directory"
fi
# The physical path, so that a link to "/" is caught and find starts on the volume itself.
dir=$(cd -P -- "$mount" && pwd -P) || refuse 22 "cannot enter mount path '$mount'"
[ "$dir" != / ] || refuse 22 "refusing to clean '/'"

write_status "Looking for dot files" 0 0 || {
	echo "dotclean_wrapper.sh: cannot write '$status_file'" >&2
	exit 74
}

# Names are only counted, never read back as paths: a name holding a newline just counts twice.
total=$(find "$dir" -xdev -type f \( -name '._*' -o -name .DS_Store \) -print 2>/dev/null | wc -l)

# -delete removes each file relative to its directory, so nothing found can be swapped for a
# link to somewhere else before it goes. find's status comes last, after one line per removal.
{
	find "$dir" -xdev -type f \( -name '._*' -o -name .DS_Store \) -delete -print
	echo "$?"
} | {
	removed=-1
	last=0
	while IFS= read -r line; do
		removed=$((removed + 1))
		last=$line
		if [ "$total" -gt 0 ] && [ $((removed % 200)) -eq 0 ] && [ "$removed" -gt 0 ]; then
			percent=$((removed * 100 / total))
			[ "$percent" -lt 100 ] || percent=99
			write_status "Removing dot files" "$percent" 0
		fi
	done
	case $last in
	0) write_status "Dot files removed" 100 0 && exit 0 ;;
	*) write_status "Some dot files could not be removed" 100 1 && exit 1 ;;
	esac
	exit 74
}
exit $?
