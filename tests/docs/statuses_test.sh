#!/bin/bash
# --help, --version and usage errors of every program and subcommand: statuses_test.sh BIN VERSION ROOT
set -u
bin=$1 version=$2 root=$3
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

# What has a page is there, and what is there has a page; each page tells the statuses, and begins with options that
# the program has.
while read -r name subcommands; do
    [[ -x $bin/$name ]] || complain "$name is missing"
    told=$(sed -n '/^\.Sh EXIT STATUS/,/^\.Sh EXAMPLES/p' "$root/man/$name.1" | grep -c '^\.It [0-9]')
    ((told >= 3)) || complain "$name(1) tells $told exit statuses"
    programs=$((programs - 1))
    all=$(for subcommand in '' $subcommands; do "$bin/$name" $subcommand --help; done 2>/dev/null)
    while read -r option; do
        [[ $all =~ (^|[^a-z-])"$option"([^a-z]|$) ]] || complain "$name(1) begins with '$option', which $name does not tell"
    done < <(sed -n '/^\.Sh SYNOPSIS/,/^\.Sh DESCRIPTION/p' "$root/man/$name.1" | sed 's/\\-/-/g' | grep -oE -- '(^|[[{ ])--?[a-z]+' |
        tr -d '[{ ')
    for subcommand in $subcommands; do
        help=$("$bin/$name" "$subcommand" --help 2>/dev/null) || complain "$name $subcommand --help: status $?"
        [[ $help == *[Uu]sage:* ]] || complain "$name $subcommand --help tells no usage"
        [[ $help == *"Exit status"* ]] || complain "$name $subcommand --help tells no exit status"
        "$bin/$name" "$subcommand" --no-such-option >/dev/null 2>&1
        status=$?
        ((status == 2)) || complain "$name $subcommand --no-such-option: status $status"
        said=$("$bin/$name" "$subcommand" --version 2>/dev/null) || complain "$name $subcommand --version: status $?"
        [[ $said == "$name $version" ]] || complain "$name $subcommand --version says '$said'"
    done
done < <(sed -n 's/^= //p' "$root/docs/man/programs.txt")
((programs == 0)) || complain "$programs programs without a page"

# Control sequences go to terminals alone.
on_terminal=$(script -qec "'$bin/ruk-top' -n 1" /dev/null </dev/null)
[[ $on_terminal == *$'\e['* ]] || complain "ruk-top does not redraw a terminal"
[[ $("$bin/ruk-top" -n 1) != *$'\e['* ]] || complain "ruk-top writes control sequences to a pipe"
for command in "ruk-info" "ruk-info --doctor" "ruk-info --stats" "ruk-top -n 1"; do
    [[ $("$bin"/$command 2>&1) != *$'\e['* ]] || complain "$command writes control sequences to a pipe"
done

echo "$failures failures"
((failures == 0))
