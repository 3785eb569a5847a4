#!/bin/sh
# The engine's folders are floors: each may include its own headers and
# those of the floors below it, never one above. Prints every include that
# reaches upward and fails if there is one.
set -u
src="${1:?usage: source_floors_check.sh SRC_DIR}"

allowed() {
  case "$1" in
    config) echo "config" ;;
    runtime | io) echo "config runtime io" ;;
    sampling) echo "config runtime sampling" ;;
    layers) echo "config runtime io sampling layers" ;;
    models) echo "config runtime io sampling layers models" ;;
    engine) echo "config runtime io sampling layers models engine" ;;
    *) echo "" ;;
  esac
}

status=0
for dir in "$src"/*/; do
  floor=$(basename "$dir")
  permitted=$(allowed "$floor")
  for file in $(find "$dir" -name '*.h' -o -name '*.cpp'); do
    for target in $(sed -n 's|^#include "\([a-z_0-9]*\)/.*|\1|p' "$file" | sort -u); do
      case " $permitted " in
        *" $target "*) ;;
        *) echo "${file#$src/}: a $floor file includes from $target/"; status=1 ;;
      esac
    done
  done
done
exit $status
