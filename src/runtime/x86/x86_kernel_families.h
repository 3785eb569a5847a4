// Every family of the x86 kernel sets' overrides, each a generic driver over
// a lane trait; a set's translation unit includes this after its trait and
// instantiates X86Kernels for it. A new family joins with its declarations
// in x86_kernels.h and its header here.
//
// The drivers' helpers sit in anonymous namespaces: each set's translation
// unit has copies of its own, which the compiler inlines as it would the
// file's own functions, and which no other object can share.
#pragma once

#include "runtime/x86/attention.h"
#include "runtime/x86/dequantize_q1.h"
#include "runtime/x86/gate_lanes.h"
#include "runtime/x86/i8_products.h"
#include "runtime/x86/lora_lanes.h"
#include "runtime/x86/nibble_logits.h"
#include "runtime/x86/norm_lanes.h"
#include "runtime/x86/q1_0_products.h"
#include "runtime/x86/q1_0_tile_products.h"
#include "runtime/x86/q1_58_products.h"
#include "runtime/x86/q8_0_products.h"
#include "runtime/x86/quantize_lanes.h"
#include "runtime/x86/rope_lanes.h"
#include "runtime/x86/ternary_products.h"
