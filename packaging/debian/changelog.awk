# The Debian changelog from CHANGELOG.md: the releases, each with its bullets. What is not released yet is no
# part of a package's changelog. Variable: maintainer. A line that is none of the form's is an error.
function end_of_release() {
    if (day != "") {
        # The form has a day, Debian wants a time.
        command = "LC_ALL=C date -u -d '" day " 20:00' '+%a, %d %b %Y %H:%M:%S +0000'"
        if ((command | getline stamp) <= 0) { failed = 1; exit 1 }
        close(command)
        printf "\n -- %s  %s\n", maintainer, stamp
    }
    day = ""
}
/^## \[Unreleased\]$/ { within = 0; next }
/^## \[[0-9.]+\] - [0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]$/ {
    if (day != "") { end_of_release(); print "" }
    within = 1
    day = $4
    printf "location-service (%s) unstable; urgency=medium\n\n", substr($2, 2, length($2) - 2)
    next
}
!within || /^$/ || /^### (Added|Changed|Deprecated|Removed|Fixed|Security)$/ { next }
/^- / { print "  * " substr($0, 3); next }
/^  [^ ]/ { print "  " $0; next }
{ printf "CHANGELOG.md:%d: not of the form: %s\n", NR, $0 >"/dev/stderr"; failed = 1; exit 1 }
END { if (failed) exit 1; end_of_release() }
