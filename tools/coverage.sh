#!/usr/bin/env bash
# Line coverage of the engine and the filter under the fast suite (every
# test but the end-to-end and fuzz ones): builds with gcc's --coverage into
# build/coverage, runs `ctest -E "e2e|Fuzz"` there, and prints per file and
# per folder the lines run at least once, counted by gcov (header lines
# included in several files count once, run when any of them ran them).
#
#   tools/coverage.sh [folders]     (default "image stencil printer filter support")
#
# Per-line counts stay in build/coverage/coverage.tsv (file, line, runs) for
# a closer look at what is not run.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/scripts/packages.sh
# shellcheck disable=SC2086
kelvo_ensure_packages $KELVO_BUILD_PACKAGES

folders=${*:-image stencil printer filter support}
build=build/coverage
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Coverage -DCMAKE_CXX_FLAGS_COVERAGE="-O1 -g --coverage" \
  -DCMAKE_C_FLAGS_COVERAGE="-O1 -g --coverage" -DCMAKE_EXE_LINKER_FLAGS_COVERAGE=--coverage >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j"$(nproc)" -E "e2e|Fuzz" >"$build/ctest.log" 2>&1 || {
  tail -20 "$build/ctest.log"
  echo "coverage: some tests failed; the figures below still count what ran" >&2
}

root=$PWD
mkdir -p "$build/gcov"
# One JSON report per object file of the project's libraries and programs.
find "$root/$build" -name '*.gcda' -not -path '*/tests/*' -print0 |
  (cd "$build/gcov" && xargs -0 -r gcov --json-format --stdout >"$root/$build/gcov.json" 2>/dev/null)
python3 - "$root" "$build" $folders <<'PY'
import json, os, sys
root, build, folders = sys.argv[1], sys.argv[2], sys.argv[3:]
runs = {}  # (file, line) -> count, merged over every object that holds the line
with open(os.path.join(build, "gcov.json")) as f:
    for text in f:
        text = text.strip()
        if not text:
            continue
        for entry in json.loads(text).get("files", []):
            path = os.path.relpath(os.path.realpath(os.path.join(root, entry["file"])), root)
            if path.split("/")[0] not in folders:
                continue
            for line in entry.get("lines", []):
                key = (path, line["line_number"])
                runs[key] = max(runs.get(key, 0), line["count"])
per_file = {}
with open(os.path.join(build, "coverage.tsv"), "w") as out:
    for (path, number), count in sorted(runs.items()):
        out.write("%s\t%d\t%d\n" % (path, number, count))
        done, total = per_file.get(path, (0, 0))
        per_file[path] = (done + (count > 0), total + 1)
print("| file | lines run | lines | % |\n|---|---:|---:|---:|")
per_folder = {}
for path, (done, total) in sorted(per_file.items()):
    print("| %s | %d | %d | %.1f |" % (path, done, total, 100.0 * done / total))
    d, t = per_folder.get(path.split("/")[0], (0, 0))
    per_folder[path.split("/")[0]] = (d + done, t + total)
print("\n| folder | lines run | lines | % |\n|---|---:|---:|---:|")
for folder in folders:
    d, t = per_folder.get(folder, (0, 0))
    print("| %s | %d | %d | %.1f |" % (folder, d, t, 100.0 * d / t if t else 0.0))
PY
