# Table of the stage lines in a renderer log ("<prefix> <stage>: <seconds>s"):
# count and total seconds of every stage, in the order they first appear.
match($0, /: [0-9]+\.[0-9]+s$/) {
    label = substr($0, 1, RSTART - 1); secs = substr($0, RSTART + 2, RLENGTH - 3)
    gsub(/^ +| +$/, "", label); gsub(/  +/, " ", label)
    if (!(label in total)) order[n++] = label
    total[label] += secs; count[label]++
}
END {
    printf "  %-32s %6s %9s\n", "stage", "count", "seconds"
    for (i = 0; i < n; i++) { l = order[i]; printf "  %-32s %6d %9.3f\n", l, count[l], total[l] }
}
