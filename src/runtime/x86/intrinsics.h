// The x86 intrinsics, included in one place. GCC 12's AVX-512 header
// initialises its "undefined vector" helpers from themselves, which
// -Wuninitialized reports at every inlined use (GCC bug 105593, fixed in
// later releases). The pragma covers only the lines of the compiler's own
// header; our code stays under every warning.
#pragma once

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#ifndef __clang__  // a GCC-only warning group, which clang would report as unknown
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#pragma GCC diagnostic pop
