# SPDX-License-Identifier: Apache-2.0
#
# The scripts of this folder begin with this: stop at the first error, work in the repository's folder, and
# print the comment at a script's top for --help.

set -euo pipefail
cd "$(dirname "$0")/.."
script=scripts/${0##*/}
[ "${1-}" != --help ] || exec sed -n '4,/^[^#]*$/s/^# \{0,1\}//p' "$script"

# Ends the script with a message about its arguments.
refuse() {
    echo "$script: $* (see $script --help)" >&2
    exit 2
}

# Makes an empty $log, until the script ends.
start_log() {
    log=$(mktemp)
    trap 'rm -f "$log"' EXIT
}

# Ends the script with a message, after what was logged.
fail() {
    cat "$log" >&2
    echo "$script: $*" >&2
    exit 1
}
