# Makes a manual page of section 3 out of a public header, and for each of its functions a file that
# leads to the page.
#
# awk -v page=NAME -v header=HEADER -v version=VERSION -v directory=DIR -f header_page.awk HEADER.h
#
# The first comment describes the family. Each later one belongs to the declarations below it, up to
# the next empty line; one line of dashes or stars around a title begins a section.

function roff(text)
{
    gsub(/\\/, "\\e", text)
    gsub(/-/, "\\-", text)
    if (text ~ /^[.']/)
        text = "\\&" text
    return text
}

function put(line)
{
    print line >output
}

# Prints comment[1..n] as paragraphs; parameters and one with an indented line are shown as they
# stand.
function put_text(    i, j, first, shown)
{
    for (first = 1; first <= n; first = i + 1) {
        shown = 0
        for (i = first; i <= n && comment[i] != ""; ++i)
            if (comment[i] ~ /^  / || (i == first && comment[i] ~ /^[a-z_]+: /))
                shown = 1
        if (i == first)
            continue
        put(".PP")
        if (shown)
            put(".nf")
        for (j = first; j < i; ++j)
            put(roff(comment[j]))
        if (shown)
            put(".fi")
    }
}

# The first sentence.
function summary(    i, text)
{
    for (i = 1; i <= n && comment[i] != ""; ++i)
        text = text (i > 1 ? " " : "") comment[i]
    sub(/[.:;] .*/, "", text)
    sub(/\.$/, "", text)
    return text
}

function put_head()
{
    put(".TH " toupper(page) " 3 \"\" \"common_device_access " version "\" \"Device access\"")
    put(".SH NAME")
    put(page " \\- " roff(summary()))
    put(".SH SYNOPSIS")
    put(".nf")
    put(".B #include <device_access/" header ">")
    put(".fi")
    put(".PP")
    put("Link with \\fI\\-lcommon_device_access\\fP.")
    put(".SH DESCRIPTION")
    put_text()
    put(".SH INTERFACE")
    in_head = 1
}

function put_declarations(    i)
{
    if (code_lines > 0) {
        put(".PP")
        put(".nf")
        for (i = 1; i <= code_lines; ++i)
            put("\\fB" roff(code[i]) "\\fP")
        put(".fi")
        put(".RS 4")
    }
    put_text()
    if (code_lines > 0)
        put(".RE")
    n = code_lines = 0
}

function link_function(line,    name)
{
    sub(/\(.*/, "", line)
    name = line
    sub(/.*[ *]/, "", name)
    if (name ~ /^[A-Za-z_][A-Za-z0-9_]*$/ && name != page && name != "__attribute__") {
        print ".so man3/" page ".3" >(directory "/" name ".3")
        close(directory "/" name ".3")
    }
}

function end_comment()
{
    in_comment = 0
    if (!in_head) {
        put_head()
        n = 0
    }
}

BEGIN { output = directory "/" page ".3" }

in_comment && /\*\/$/ {
    sub(/ ?\*\/$/, "")
    sub(/^ \* ?/, "")
    if ($0 != "")
        comment[++n] = $0
    end_comment()
    next
}
in_comment {
    sub(/^ \* ?/, "")
    comment[++n] = $0
    next
}
/^#if.*__cplusplus/ { skipped = 1 }
skipped {
    if (/^#endif/)
        skipped = 0
    next
}
/^\/\*[-*]/ {
    put_declarations()
    gsub(/^\/\*[-*]* ?| ?[-*]*\*\/$/, "")
    put(".SS " roff(toupper(substr($0, 1, 1)) substr($0, 2)))
    next
}
/^\/\*/ {
    put_declarations()
    if (/\*\/$/) {
        gsub(/^\/\* | \*\/$/, "")
        comment[++n] = $0
        end_comment()
        next
    }
    sub(/^\/\* ?/, "")
    if ($0 != "")
        comment[++n] = $0
    in_comment = 1
    next
}
/^#define .* / && !/_H$/ { code[++code_lines] = $0; next }
/^#/ || /^DEVICE_ACCESS_(BEGIN|END)_DECLS/ { next }
/^$/ { put_declarations(); next }
{
    if (/DEVICE_ACCESS_API.*\(/ || pending) {
        if (/\(/)
            link_function($0)
        pending = 0
    } else if (/DEVICE_ACCESS_API/) {
        pending = 1
    }
    sub(/DEVICE_ACCESS_API /, "")
    sub(/ DEVICE_ACCESS_INT_ENUM/, "")
    sub(/DEVICE_ACCESS_API$/, "")
    if ($0 != "")
        code[++code_lines] = $0
}
END {
    put_declarations()
    put(".SH SEE ALSO")
    put("The pages of the families: " families ".")
}
