#!/usr/bin/env bash
# extract_snippets.sh README OUTDIR EXPECTED_COUNT
# extract_snippets.sh --count README
#
# Writes every ```cpp block of README as OUTDIR/snippet_NN.cpp (NN from 01,
# in README order), ready to compile against ReadmePrelude.h:
#
# - By default a block is the body of a function,
#       auto readmeSnippetNN(int argc, char **argv) { <block> }
#   so its statements, local classes and return statements compile as they
#   would in main() or a handler (the return type is deduced: the block's
#   return statements must agree with each other).
# - A block whose fence follows the line `<!-- snippet: file scope -->` is
#   compiled as it stands, at namespace scope (definitions of classes and
#   functions, ORV_LOG_FILE).
#
# Either way the block's #include lines go first in the file, before
# ReadmePrelude.h (a precompiled prelude comes before everything, though),
# and #line directives point every diagnostic at README's own lines.
# Blocks are fenced with three or more backticks or tildes; those marked
# cpp, c++, cxx, cc or hpp (any case) are compiled, and blocks of other
# languages (```sh, ```text, a bare ```) are skipped whole, whatever they
# contain. A file is rewritten only when its text
# changes, so an edit that moves no example recompiles nothing.
#
# The number of blocks must be EXPECTED_COUNT; CMake asks for it with
# --count at configure time and configures again when README changes.
set -euo pipefail

usage() {
    echo "usage: $0 README OUTDIR EXPECTED_COUNT | $0 --count README" >&2
    exit 2
}

if [ $# -eq 2 ] && [ "$1" = --count ]; then
    readme=$2
    staging=""
elif [ $# -eq 3 ]; then
    readme=$1
    outdir=$2
    expected=$3
    mkdir -p "$outdir"
    staging=$(mktemp -d "$outdir/.extract.XXXXXX")
    trap 'rm -rf "$staging"' EXIT
else
    usage
fi

# The README path as the string literal of the #line directives.
line_file=${readme//\\/\\\\}
line_file=${line_file//\"/\\\"}
# Through the environment, which awk takes as it is (-v would read
# backslash escapes).
export SNIPPET_README=$readme SNIPPET_DIR=$staging SNIPPET_LINE_FILE=$line_file

found=$(awk '
function fail(line, message) {
    printf "%s:%d: %s\n", readme, line, message > "/dev/stderr"
    failed = 1
    exit 1
}
function closes(line,    closing) {
    closing = line
    gsub(/[ \t]/, "", closing)
    return substr(closing, 1, 1) == substr(fence, 1, 1) && length(closing) >= length(fence)
}
function isInclude(line) {
    return line ~ /^[ \t]*#[ \t]*include[ \t]*[<"]/
}
function flush(    file, i) {
    if (dir == "")
        return
    file = sprintf("%s/snippet_%02d.cpp", dir, count)
    printf "// Generated from %s (lines %d-%d) by tests/readme/extract_snippets.sh; edit the README.\n",
        readme, first, NR - 1 > file
    # The headers the example names come first, each compiled as the
    # example shows it, then the placeholder names.
    for (i = 1; i <= lines; ++i)
        if (isInclude(text[i]))
            printf "#line %d \"%s\"\n%s\n", first + i - 1, lineFile, text[i] > file
    printf "#include \"ReadmePrelude.h\"\n" > file
    if (scope == "function")
        printf "\nauto readmeSnippet%02d(int argc, char **argv)\n{\n", count > file
    printf "#line %d \"%s\"\n", first, lineFile > file
    for (i = 1; i <= lines; ++i)
        print (isInclude(text[i]) ? "" : text[i]) > file
    if (scope == "function")
        printf "}\n" > file
    close(file)
}
BEGIN {
    readme = ENVIRON["SNIPPET_README"]
    dir = ENVIRON["SNIPPET_DIR"]
    lineFile = ENVIRON["SNIPPET_LINE_FILE"]
    block = ""      # "cpp" or "other" inside a fenced block
    count = 0
    marked = 0      # the previous line was the file-scope marker
}
{
    sub(/\r$/, "")
    if (block != "") {
        # A fence closes with at least as many of its own characters and
        # nothing after them, so a longer fence can show a shorter one.
        if (match($0, /^[ \t]*(```+|~~~+)[ \t]*$/) && closes($0)) {
            if (block == "cpp")
                flush()
            block = ""
        } else if (block == "cpp") {
            text[++lines] = $0
        }
        next
    }
    if (match($0, /^[ \t]*(```+|~~~+)/)) {
        fence = substr($0, RSTART, RLENGTH)
        sub(/^[ \t]*/, "", fence)
        info = tolower(substr($0, RSTART + RLENGTH))
        sub(/^[ \t]*/, "", info)
        sub(/[ \t].*$/, "", info)
        start = NR
        # Every spelling that renders as C++ is compiled.
        if (info ~ /^(cpp|c\+\+|cxx|cc|hpp)$/) {
            block = "cpp"
            ++count
            first = NR + 1
            lines = 0
            scope = marked ? "file" : "function"
            marked = 0
            next
        }
        if (marked)
            fail(NR - 1, "`<!-- snippet: file scope -->` must be the line just before a ```cpp fence")
        block = "other"
        next
    }
    if (marked)
        fail(NR - 1, "`<!-- snippet: file scope -->` must be the line just before a ```cpp fence")
    if ($0 ~ /^[ \t]*<!--[ \t]*snippet:/) {
        if ($0 !~ /^[ \t]*<!--[ \t]*snippet:[ \t]*file scope[ \t]*-->[ \t]*$/)
            fail(NR, "unknown snippet marker (the one there is: <!-- snippet: file scope -->)")
        marked = 1
    }
}
END {
    if (failed)
        exit 1
    if (block != "")
        fail(start, "this fenced block is not closed")
    if (marked)
        fail(NR, "`<!-- snippet: file scope -->` must be the line just before a ```cpp fence")
    print count
}
' "$readme")

if [ -z "$staging" ]; then
    echo "$found"
    exit 0
fi
if [ "$found" != "$expected" ]; then
    echo "$readme has $found \`\`\`cpp blocks but the build was configured for $expected;" \
         "run cmake again on the build folder" >&2
    exit 1
fi

for new in "$staging"/snippet_*.cpp; do
    [ -e "$new" ] || continue
    old=$outdir/$(basename "$new")
    if ! cmp -s "$new" "$old"; then
        mv -f "$new" "$old"
    fi
done
# Examples the README no longer has.
for old in "$outdir"/snippet_*.cpp; do
    [ -e "$old" ] || continue
    number=${old##*/snippet_}
    number=${number%.cpp}
    if [ $((10#$number)) -gt "$found" ]; then
        rm -f "$old"
    fi
done
