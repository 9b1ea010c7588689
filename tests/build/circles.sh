#!/bin/sh
# circles.sh NM ARCHITECTURE OBJECT...: fails when units call or use each other in a circle, or when one calls a unit of a
# higher layer of the table in ARCHITECTURE. The symbols tell what includes do not: a function may be declared in a header
# of another name. OBJECTs are the objects of one folder, each a unit.
set -eu
nm=$1
architecture=$2
shift 2

calls=$(for object; do
    unit=${object##*/}
    "$nm" -P "$object" | sed "s/^/${unit%%.*} /"
done | awk '
    $3 ~ /^[BCDGRST]$/ { owner[$2] = $1 }
    $3 == "U" { user[++count] = $1; used[count] = $2 }
    END {
        for (i = 1; i <= count; i++)
            if (used[i] in owner && owner[used[i]] != user[i])
                print user[i], owner[used[i]]
    }' | sort -u)
if [ -z "$calls" ]; then
    echo "no unit uses another one: $nm does not read these objects" >&2
    exit 1
fi

echo "$calls" | tsort >/dev/null # its message names the units of a circle
echo "$calls" | awk -v architecture="$architecture" '
    BEGIN {
        while ((getline line < architecture) > 0) {
            if (split(line, column, "|") < 4 || column[2] !~ /^ [0-9]+ $/)
                continue
            names = split(column[4], name, "`")
            for (i = 2; i <= names; i += 2)
                layer[name[i]] = column[2] + 0
        }
    }
    $1 in layer && $2 in layer && layer[$2] > layer[$1] {
        print $1 " of layer " layer[$1] " calls " $2 " of layer " layer[$2]
        against = 1
    }
    END { exit against }' >&2
