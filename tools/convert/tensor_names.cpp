#include "tools/convert/tensor_names.h"

namespace quorvel::convert {
namespace {

using enum tools::LayerSlot;

struct SlotNames {
  tools::LayerSlot slot;
  const char* safetensors;
  const char* gguf;
};

constexpr SlotNames kSlotNames[] = {
    {ATTENTION_NORM, "input_layernorm", "attn_norm"},
    {ATTENTION_SUB_NORM, "self_attn.attn_sub_norm", "attn_sub_norm"},
    {K, "self_attn.k_proj", "attn_k"},
    {V, "self_attn.v_proj", "attn_v"},
    {Q, "self_attn.q_proj", "attn_q"},
    {Q_NORM, "self_attn.q_norm", "attn_q_norm"},
    {K_NORM, "self_attn.k_norm", "attn_k_norm"},
    {O, "self_attn.o_proj", "attn_output"},
    {FFN_NORM, "post_attention_layernorm", "ffn_norm"},
    {GATE, "mlp.gate_proj", "ffn_gate"},
    {UP, "mlp.up_proj", "ffn_up"},
    {FFN_SUB_NORM, "mlp.ffn_sub_norm", "ffn_sub_norm"},
    {DOWN, "mlp.down_proj", "ffn_down"},
};

const SlotNames& names_of(tools::LayerSlot slot) {
  for (const SlotNames& names : kSlotNames) {
    if (names.slot == slot) return names;
  }
  return kSlotNames[0];  // every slot has a row above
}

}  // namespace

std::string safetensors_slot_name(tools::LayerSlot slot) { return names_of(slot).safetensors; }
std::string gguf_slot_name(tools::LayerSlot slot) { return names_of(slot).gguf; }

}  // namespace quorvel::convert
