#!/usr/bin/env bash
# Keeps the architecture visible as the tree grows. Fails (status 1, one line
# per offence) when
#   - a source file includes a folder it may not reach: layers include
#     downward only, core <- kit <- platform <- remote <- daemon; the hook tool
#     and the helper reach down to platform, the command line also to remote;
#     tests, benchmarks and fuzz targets may include anything;
#   - an #if on the operating system (__APPLE__, __linux__, __MACH__, _WIN32,
#     TARGET_OS_...) stands outside a backend folder (linux/, macos/) or an
#     executable's main.cpp: backends are chosen by CMake, not by the
#     preprocessor.
# Folders that do not exist yet are simply checked once they appear.
set -euo pipefail
cd "$(dirname "$0")/.."

# The folders of src/ each folder may include from (itself always allowed).
declare -A allowed=(
  [core]=""
  [kit]="core"
  [platform]="core kit"
  [remote]="core kit platform"
  [daemon]="core kit platform remote"
  [helper]="core kit platform"
  [hook]="core kit platform"
  [cli]="core kit platform remote"
)

status=0
fail() {
  echo "check-layers: $*" >&2
  status=1
}

sources() {
  find "$@" -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' \) 2>/dev/null | sort
}

# ---- Includes point downward ------------------------------------------------
for dir in src/*/; do
  layer=$(basename "$dir")
  if [[ ! -v "allowed[$layer]" ]]; then
    [[ -n "$(sources "$dir")" ]] && fail "src/$layer: a folder the layer rules do not know; add it to scripts/check-layers.sh"
    continue
  fi
  ok=" $layer ${allowed[$layer]} "
  while IFS= read -r file; do
    while IFS=: read -r line target; do
      top=${target%%/*}
      [[ "$target" == */* ]] || continue              # a file beside this one
      [[ -d "src/$top" || -v "allowed[$top]" ]] || continue  # not one of ours
      [[ "$ok" == *" $top "* ]] || fail "$file:$line includes \"$target\", above or beside $layer"
    done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$file" |
      sed -E 's/^([0-9]+):[^"]*"([^"]*)".*/\1:\2/' || true)
  done < <(sources "$dir")
done

# ---- Operating-system #if only in backends and main.cpp ----------------------
os_pattern='^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif)\b.*\b(__APPLE__|__linux__|__linux|__MACH__|_WIN32|_WIN64|__FreeBSD__|__unix__|TARGET_OS_[A-Z_]+)\b'
while IFS= read -r file; do
  case "$file" in
    */linux/* | */macos/* | */main.cpp) continue ;;
  esac
  while IFS= read -r hit; do
    fail "$file:${hit%%:*}: an operating-system #if outside a backend folder"
  done < <(grep -nE "$os_pattern" "$file" || true)
done < <(sources src tests bench fuzz)

exit "$status"
