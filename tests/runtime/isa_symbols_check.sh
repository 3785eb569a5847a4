#!/usr/bin/env bash
# No code compiled for one instruction set may stand in for code of another.
#
# An inline function, or a template instantiated with the same arguments, in
# two translation units is one weak (COMDAT) symbol: the linker keeps one of
# the copies, whichever it likes. If one copy was compiled with AVX-512 flags
# and the other without, a processor without AVX-512 may end up running the
# AVX-512 copy and die on an illegal instruction. So every weak function must
# be defined by objects of one instruction set only, and no strong function
# may have a weak double in another set's objects. Weak data (nm type V or u:
# vtables, type information, static locals) holds no instructions and may be
# shared.
#
# An object's instruction set is the suffix of its source file, the rule the
# top-level CMakeLists.txt applies its flags by: name_avx512.cpp.o is built
# with that set's flags, an object with no listed suffix with none.
#
# Usage: isa_symbols_check.sh "SUFFIX..." ARCHIVE_OR_OBJECT...
#   e.g. isa_symbols_check.sh "avx2 avx512" libquorvel_runtime.a libquorvel_layers.a
# Prints every shared symbol (demangled) with the objects that define it, and
# exits 1 when there is one.
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 \"SUFFIX...\" ARCHIVE_OR_OBJECT..." >&2
  exit 2
fi
suffixes=$1
shift

# nm -A prints "file:address type name" for an object and
# "archive:member:address type name" for an archive member.
report=$(nm -A --defined-only "$@" | awk -v suffixes="$suffixes" '
  BEGIN {
    n = split(suffixes, list, " ")
    for (i = 1; i <= n; ++i) isa_of["_" list[i] ".cpp.o"] = list[i]
  }
  function isa(object,    key) {
    for (key in isa_of) {
      if (substr(object, length(object) - length(key) + 1) == key) return isa_of[key]
    }
    return "plain"
  }
  {
    object = $1
    sub(/:[0-9a-fA-F]*$/, "", object)
    set = isa(object)
    present[set] = 1
  }
  $2 == "W" || $2 == "T" {
    if (!((($3) SUBSEP set) in seen)) {
      seen[$3, set] = 1
      sets[$3] = sets[$3] " " set
      count[$3]++
    }
    where[$3] = where[$3] "\n    " object " (" set ")"
  }
  END {
    for (i = 1; i <= n; ++i) {
      if (!(list[i] in present)) {
        print "no object of instruction set " list[i] " among the inputs: nothing to check it against"
        exit 1
      }
    }
    offenders = 0
    for (symbol in count) {
      if (count[symbol] > 1) {
        print "shared across instruction sets:" sets[symbol] ": " symbol where[symbol]
        ++offenders
      }
    }
    if (offenders > 0) {
      print offenders " weak function(s) defined by objects of different instruction sets"
      exit 1
    }
    print "no weak function shared across instruction sets (" suffixes ", plain)"
  }') && status=0 || status=$?
if command -v c++filt >/dev/null; then
  c++filt <<<"$report"
else
  echo "$report"
fi
exit "$status"
