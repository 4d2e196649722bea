#!/bin/sh
# headers.sh HEADERS COMPILER...: each of the headers, a list with blanks between, compiles alone and
# without a warning.
headers=$1
shift
status=0
for header in $headers; do
    echo "#include \"$header\"
int one_line;" | "$@" -pedantic -Wall -Wextra -Wconversion -Werror -fsyntax-only - || status=1
done
exit $status
