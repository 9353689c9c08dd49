#!/usr/bin/env bash
# Checks udev rule files line by line, since Debian 12's udevadm has no "verify" and udev skips a
# key it cannot parse with no more than a log line: every key is one udev knows, with an operator
# it takes and an attribute in braces exactly where it needs one; every line assigns something;
# a MODE is octal; every GOTO has its LABEL; and a file that tags uaccess sorts before
# 71-seat.rules and 73-seat-late.rules, or the tag does nothing.
# Usage: scripts/check-udev-rules.sh FILE...   Exit 0 when every file passes, else 1.
set -uo pipefail

MATCH_KEYS=" ACTION DEVPATH KERNEL KERNELS NAME SYMLINK SUBSYSTEM SUBSYSTEMS DRIVER DRIVERS ATTR
 ATTRS SYSCTL ENV CONST TAG TAGS TEST PROGRAM RESULT "
ASSIGN_KEYS=" NAME SYMLINK OWNER GROUP MODE ATTR SYSCTL ENV TAG RUN IMPORT OPTIONS LABEL GOTO
 SECLABEL "
NEEDS_ATTRIBUTE=" ATTR ATTRS SYSCTL ENV CONST SECLABEL IMPORT "
MAY_HAVE_ATTRIBUTE=" TEST RUN "
ONLY_EQUALS=" IMPORT LABEL GOTO "

has() { [[ $1 == *" $2 "* || $1 == *" $2"$'\n'* || $1 == *$'\n'"$2 "* ]]; }

failed=0
problem() {
    echo "$1:$2: $3" >&2
    failed=1
}

check_file() {
    local file=$1 number=0 line
    local -A labels=() gotos=()
    while IFS= read -r line || [ -n "$line" ]; do
        number=$((number + 1))
        [[ $line =~ ^[[:space:]]*(#|$) ]] && continue
        local rest=$line assignments=0
        while :; do
            if ! [[ $rest =~ ^[[:space:]]*([A-Z_]+)(\{([^}]*)\})?[[:space:]]*(==|!=|\+=|-=|:=|=)[[:space:]]*\"([^\"]*)\"[[:space:]]*(.*)$ ]]; then
                problem "$file" "$number" "cannot read a KEY, operator and \"value\" at: $rest"
                break
            fi
            local key=${BASH_REMATCH[1]} braces=${BASH_REMATCH[2]} op=${BASH_REMATCH[4]}
            local value=${BASH_REMATCH[5]}
            rest=${BASH_REMATCH[6]}
            if [[ $op == "==" || $op == "!=" ]]; then
                has "$MATCH_KEYS" "$key" || problem "$file" "$number" "$key cannot be matched ($op)"
            else
                has "$ASSIGN_KEYS" "$key" || problem "$file" "$number" "$key cannot be assigned ($op)"
                assignments=$((assignments + 1))
            fi
            if has "$NEEDS_ATTRIBUTE" "$key"; then
                [ -n "$braces" ] || problem "$file" "$number" "$key needs {NAME}"
            elif ! has "$MAY_HAVE_ATTRIBUTE" "$key"; then
                [ -z "$braces" ] || problem "$file" "$number" "$key takes no {NAME}"
            fi
            if has "$ONLY_EQUALS" "$key" && [ "$op" != "=" ]; then
                problem "$file" "$number" "$key takes only ="
            fi
            case $key in
                MODE) [[ $value =~ ^0?[0-7]{3}$ ]] || problem "$file" "$number" "MODE \"$value\" is not octal" ;;
                LABEL) labels[$value]=1 ;;
                GOTO) gotos[$value]=$number ;;
            esac
            [ -z "$rest" ] && break
            if [[ $rest != ,* ]]; then
                problem "$file" "$number" "a comma is missing before: $rest"
                break
            fi
            rest=${rest#,}
            [[ $rest =~ ^[[:space:]]*$ ]] && { problem "$file" "$number" "a comma ends the line"; break; }
        done
        [ "$assignments" -gt 0 ] || problem "$file" "$number" "the line only matches: it does nothing"
    done < "$file"
    local label
    for label in "${!gotos[@]}"; do
        [ -n "${labels[$label]:-}" ] || problem "$file" "${gotos[$label]}" "GOTO \"$label\" has no LABEL"
    done
    if grep -q 'TAG+="uaccess"' "$file"; then
        local name
        name=$(basename "$file")
        [[ $name < "71-seat.rules" ]] || problem "$file" 0 "uaccess needs a name that sorts before 71-seat.rules"
    fi
}

[ $# -gt 0 ] || { echo "usage: $0 FILE..." >&2; exit 2; }
for file in "$@"; do
    check_file "$file"
done
exit $failed
