"""Writes a trained model as a packed-ternary BitNet checkpoint directory.

Files: config.json, generation_config.json, model.safetensors, tokenizer.json
and tokenizer_config.json. Every projection is stored as `weight`, uint8 of
shape [out/4, in], whose bits 2k..2k+1 of element [r, c] hold the code
(weight + 1) of row k*out/4 + r, and `weight_scale`, one float32 gamma; the
quantization_config says "autobitlinear" in "offline" mode, so a reader
multiplies by the scale. The embedding and the norms are bf16 (nearest even).
"""
import json
import os
import struct

import numpy as np
import torch

import bpe
from model import ternary_codes

SAFETENSORS_DTYPES = {np.dtype(np.uint8): "U8", np.dtype(np.float32): "F32", np.dtype(np.uint16): "BF16"}


def bf16_bits(values):
    """float32 -> bf16 bit patterns, round to nearest even (values here are finite)."""
    bits = np.ascontiguousarray(values, dtype=np.float32).view(np.uint32).astype(np.uint64)
    rounded = (bits + 0x7FFF + ((bits >> 16) & 1)) >> 16
    return rounded.astype(np.uint16)


def pack_ternary_rows(codes):
    """codes: (out, in) uint8 in 0..2 -> (out/4, in) with row k*out/4 + r in bits 2k of row r."""
    planes = codes.reshape(4, codes.shape[0] // 4, codes.shape[1]).astype(np.uint8)
    return planes[0] | (planes[1] << 2) | (planes[2] << 4) | (planes[3] << 6)


def write_safetensors(path, tensors):
    """tensors: name -> (dtype name, shape, bytes); offsets in insertion order."""
    header, offset = {}, 0
    for name, (dtype, shape, data) in tensors.items():
        header[name] = {"dtype": dtype, "shape": list(shape), "data_offsets": [offset, offset + len(data)]}
        offset += len(data)
    text = json.dumps(header, separators=(",", ":")).encode("utf-8")
    text += b" " * (-len(text) % 8)
    with open(path, "wb") as out:
        out.write(struct.pack("<Q", len(text)))
        out.write(text)
        for _, _, data in tensors.values():
            out.write(data)


def entry(array):
    array = np.ascontiguousarray(array)
    return SAFETENSORS_DTYPES[array.dtype], array.shape, array.tobytes()


def projection_entries(name, weight):
    codes, gamma = ternary_codes(weight)
    packed = pack_ternary_rows((codes + 1).to(torch.uint8).numpy())
    scale = np.array([gamma.item()], dtype=np.float32)
    return {f"{name}.weight": entry(packed), f"{name}.weight_scale": entry(scale)}


def bf16_entry(tensor):
    return entry(bf16_bits(tensor.detach().float().numpy()))


PROJECTIONS = {"self_attn.q_proj": ("attention", "q"), "self_attn.k_proj": ("attention", "k"),
               "self_attn.v_proj": ("attention", "v"), "self_attn.o_proj": ("attention", "o"),
               "mlp.gate_proj": ("feed_forward", "gate"), "mlp.up_proj": ("feed_forward", "up"),
               "mlp.down_proj": ("feed_forward", "down")}
NORMS = {"input_layernorm": ("attention", "norm"), "self_attn.attn_sub_norm": ("attention", "sub_norm"),
         "post_attention_layernorm": ("feed_forward", "norm"), "mlp.ffn_sub_norm": ("feed_forward", "sub_norm")}


def checkpoint_tensors(model):
    tensors = {"model.embed_tokens.weight": bf16_entry(model.embedding.weight),
               "model.norm.weight": bf16_entry(model.final_norm.weight)}
    for i, block in enumerate(model.blocks):
        prefix = f"model.layers.{i}."
        for name, (part, attribute) in NORMS.items():
            tensors[prefix + name + ".weight"] = bf16_entry(getattr(getattr(block, part), attribute).weight)
        for name, (part, attribute) in PROJECTIONS.items():
            tensors.update(projection_entries(prefix + name, getattr(getattr(block, part), attribute).weight))
    return tensors


def model_config(shape, tokenizer):
    return {
        "architectures": ["BitNetForCausalLM"],
        "model_type": "bitnet",
        "hidden_size": shape.hidden,
        "intermediate_size": shape.intermediate,
        "num_hidden_layers": shape.layers,
        "num_attention_heads": shape.heads,
        "num_key_value_heads": shape.kv_heads,
        "head_dim": shape.head_dim,
        "vocab_size": shape.vocab_size,
        "max_position_embeddings": shape.context,
        "rms_norm_eps": shape.norm_eps,
        "rope_theta": shape.rope_theta,
        "rope_scaling": None,
        "hidden_act": "relu2",
        "attention_bias": False,
        "tie_word_embeddings": True,
        "bos_token_id": tokenizer.added[bpe.BEGIN_OF_TEXT],
        "eos_token_id": tokenizer.added[bpe.END_OF_TEXT],
        "torch_dtype": "bfloat16",
        "quantization_config": {"quant_method": "bitnet", "linear_class": "autobitlinear",
                                "quantization_mode": "offline"},
    }


def generation_config(tokenizer):
    return {"bos_token_id": tokenizer.added[bpe.BEGIN_OF_TEXT], "eos_token_id": tokenizer.added[bpe.END_OF_TEXT],
            "do_sample": True, "temperature": 0.7, "top_k": 40, "top_p": 0.9, "repetition_penalty": 1.1}


def write_json(path, value):
    with open(path, "w", encoding="utf-8") as out:
        json.dump(value, out, indent=2)
        out.write("\n")


def export_checkpoint(model, tokenizer, directory):
    os.makedirs(directory, exist_ok=True)
    with torch.no_grad():
        write_safetensors(os.path.join(directory, "model.safetensors"), checkpoint_tensors(model))
    write_json(os.path.join(directory, "config.json"), model_config(model.shape, tokenizer))
    write_json(os.path.join(directory, "generation_config.json"), generation_config(tokenizer))
    write_json(os.path.join(directory, "tokenizer_config.json"), bpe.tokenizer_config(model.shape.context))
    tokenizer.save(os.path.join(directory, "tokenizer.json"))
