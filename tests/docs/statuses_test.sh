#!/bin/bash
# --help, --version and usage errors of every program: statuses_test.sh BIN VERSION
set -u
bin=$1 version=$2
failures=0 programs=0

complain()
{
    echo "$*"
    failures=$((failures + 1))
}

for path in "$bin"/ruk-* "$bin"/rukrun; do
    [[ -x $path ]] || continue
    name=${path##*/}
    programs=$((programs + 1))
    error=2
    [[ $name == rukrun ]] && error=125

    help=$("$path" --help 2>/dev/null) || complain "$name --help: status $?"
    [[ $help == *[Uu]sage:* ]] || complain "$name --help tells no usage"
    [[ $help == *"Exit status"* ]] || complain "$name --help tells no exit status"
    [[ $help != *$'\e['* ]] || complain "$name --help has colours where there is no terminal"
    said=$("$path" --version 2>/dev/null) || complain "$name --version: status $?"
    [[ $said == "$name $version" ]] || complain "$name --version says '$said'"
    output=$("$path" --no-such-option 2>/dev/null)
    status=$?
    ((status == error)) || complain "$name --no-such-option: status $status, not $error"
    [[ -z $output ]] || complain "$name --no-such-option writes to standard output"
done

((programs >= 6)) || complain "only $programs programs"
echo "$programs programs, $failures failures"
((failures == 0))
