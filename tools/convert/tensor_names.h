// What the two checkpoint families call each tensor of a layer.
#pragma once

#include <string>

#include "tools/lib/tensor_layout.h"

namespace quorvel::convert {

std::string safetensors_slot_name(tools::LayerSlot slot);  // "self_attn.q_proj"
std::string gguf_slot_name(tools::LayerSlot slot);         // "attn_q"

}  // namespace quorvel::convert
