#!/usr/bin/env bash
# The table of the model's steps fits: it has the locks that each function of the product takes, and how often; the
# model takes the same in the step that stands for the function; and no step of the model is missing.
# usage: lock_acquisitions_test.sh SOURCE_FOLDER
set -euo pipefail
cd "$1"

failed=0
# expect_same WHAT EXPECTED FOUND
expect_same() {
    diff <(sort <<<"$2") <(sort <<<"$3") && return
    echo "$1 (< in model/README.md, > found)"
    failed=1
}

# Both print a line for each acquisition: who takes it, then the lock, or "tries" and the lock.
taken_by_functions() {
    awk '
        FNR == 1 { owner = "none"; split("", lockOf) }
        /^[A-Za-z].*\(/ && !/;$/ {
            owner = $0
            sub(/\(.*/, "", owner)
            sub(/.*[ *&>]/, "", owner)
        }
        function print_taken(lock, prefix,    function_name, class) {
            function_name = owner
            sub(/.*::/, "", function_name)
            class = substr(owner, 1, length(owner) - length(function_name))
            print function_name, prefix (lock == "mLock" ? class lock : lock)
        }
        /(lock_guard|unique_lock|scoped_lock)(<std::mutex>)? [a-zA-Z]+\(/ {
            match($0, /[a-zA-Z]+\(/)
            guard = substr($0, RSTART, RLENGTH - 1)
            lock = substr($0, RSTART + RLENGTH)
            sub(/(\.get\(\)|,|\)).*/, "", lock)
            lockOf[guard] = lock
            if (!/defer_lock/) print_taken(lock)
            next
        }
        match($0, /[a-zA-Z]+\.(try_)?lock\(\)/) {
            guard = substr($0, RSTART, RLENGTH)
            sub(/\..*/, "", guard)
            print_taken(guard in lockOf ? lockOf[guard] : guard, /try_lock/ ? "tries " : "")
            next
        }
        /lock_guard|(unique|shared|scoped)_lock|[^n]lock\(|call_once|pthread_(mutex|rwlock)/ {
            print FILENAME ":" FNR ": takes a lock in a way that this test does not know"
        }' {helper,imgsub,metadata,libveljsonutils}/*.{h,cpp}
}
taken_by_steps() {
    awk '
        /^inline (lock|unlock|tryLock|waitFor|lockHelper|lockLink)\(/ { next }
        /^(inline|proctype) / { step = $2; sub(/\(.*/, "", step) }
        {
            while (match($0, /[ (](locked|waitFor|tryLock|lockHelper|lockLink)\([^,)]*/)) {
                split(substr($0, RSTART + 1, RLENGTH - 1), call, "(")
                $0 = substr($0, RSTART + RLENGTH)
                lock = call[1] == "lockLink" ? "mServiceLock" : call[1] == "lockHelper" ? "VelImgSubHelper::mLock" : call[2]
                if (lock == "filtersLock") lock = "MetadataHandler::mLock"
                print step, (call[1] == "tryLock" ? "tries " : "") lock
            }
        }' <(sed '/^#define/d; s|/\*.*||' model/locks.pml)
}

# The table, a row for each step: | `step` | `function`, `function` | `lock`, `lock` twice, tries `lock` |
# column 2 or 3: each name there, with each lock of the row; "names" in the place of the locks for the names alone.
table() {
    awk -F ' *[|] *' -v column="$1" -v what="$2" '
        !/^\| `/ { next }
        {
            count = split($column, part, "`")
            for (i = 2; i < count; i += 2) {
                if (what == "names") { print part[i]; continue }
                locks = split($4, lock, "`")
                for (l = 2; l < locks; l += 2) {
                    taken = part[i] " " (lock[l - 1] ~ /tries/ ? "tries " : "") lock[l]
                    print taken
                    if (lock[l + 1] ~ /twice/) print taken
                }
            }
        }' model/README.md
}

expect_same "the locks that functions take" "$(table 3 locks)" "$(taken_by_functions)"
expect_same "the locks that steps of the model take" "$(table 2 locks)" "$(taken_by_steps)"
expect_same "the steps of the model" "$(table 2 names)" \
    "$(sed -nE 's/^(inline|proctype) ([A-Za-z_]+)\(.*/\2/p' model/locks.pml)"
for name in $(table 3 names); do
    grep -qE "[ :]$name\(" {helper,imgsub,metadata}/*.cpp && continue
    echo "model/README.md names $name, which the product does not have"
    failed=1
done
exit $failed
