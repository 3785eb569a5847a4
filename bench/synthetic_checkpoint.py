#!/usr/bin/env python3
"""Writes a synthetic packed-ternary checkpoint directory in the published
safetensors layout, for timing quorvel-convert on a full-size model.

Shapes default to the 2B BitNet model (30 layers, hidden 2560). Weights are
random: packed U8 codes in 0..2 with a bf16 weight_scale per projection,
bf16 embedding and norms. Standard library only.

    bench/synthetic_checkpoint.py OUT_DIR [--layers N]
"""
import argparse
import json
import os
import struct

SHAPE = dict(hidden=2560, intermediate=6912, heads=20, kv_heads=5, head_dim=128, vocab=128256)


def valid_code_bytes():
    """Maps any byte to one whose four 2-bit fields are codes 0..2."""
    table = bytearray(256)
    for b in range(256):
        table[b] = sum((((b >> (2 * k)) & 3) % 3) << (2 * k) for k in range(4))
    return bytes(table)


def random_bf16(count):
    """Random bf16 values of magnitude about 0.004 to 0.06 with either sign."""
    data = bytearray(os.urandom(2 * count))
    high = bytes((b & 0x80) | (0x3B + (b & 0x03)) for b in range(256))
    data[1::2] = bytes(data[1::2]).translate(high)
    return bytes(data)


def tensors(layers):
    d, i, h, kv, hd, v = (SHAPE[k] for k in ("hidden", "intermediate", "heads", "kv_heads", "head_dim", "vocab"))
    codes = valid_code_bytes()
    yield "model.embed_tokens.weight", "BF16", [v, d], lambda: random_bf16(v * d)
    yield "model.norm.weight", "BF16", [d], lambda: random_bf16(d)
    projections = {"self_attn.q_proj": (h * hd, d), "self_attn.k_proj": (kv * hd, d), "self_attn.v_proj": (kv * hd, d),
                   "self_attn.o_proj": (d, h * hd), "mlp.gate_proj": (i, d), "mlp.up_proj": (i, d),
                   "mlp.down_proj": (d, i)}
    for layer in range(layers):
        prefix = f"model.layers.{layer}."
        for name, width in (("input_layernorm", d), ("post_attention_layernorm", d),
                            ("self_attn.attn_sub_norm", h * hd), ("mlp.ffn_sub_norm", i)):
            yield prefix + name + ".weight", "BF16", [width], lambda w=width: random_bf16(w)
        for name, (rows, cols) in projections.items():
            yield prefix + name + ".weight", "U8", [rows // 4, cols], \
                lambda n=rows // 4 * cols: os.urandom(n).translate(codes)
            yield prefix + name + ".weight_scale", "BF16", [1], lambda: struct.pack("<H", 0x4120)  # 10.0


def byte_size(dtype, shape):
    count = 1
    for extent in shape:
        count *= extent
    return count * (2 if dtype == "BF16" else 1)


def write_checkpoint(out_dir, layers):
    os.makedirs(out_dir, exist_ok=True)
    entries = list(tensors(layers))
    header, offset = {}, 0
    for name, dtype, shape, _ in entries:
        size = byte_size(dtype, shape)
        header[name] = {"dtype": dtype, "shape": shape, "data_offsets": [offset, offset + size]}
        offset += size
    text = json.dumps(header).encode()
    with open(os.path.join(out_dir, "model.safetensors"), "wb") as out:
        out.write(struct.pack("<Q", len(text)) + text)
        for _, _, _, make in entries:
            out.write(make())
    config = {"architectures": ["BitNetForCausalLM"], "hidden_size": SHAPE["hidden"],
              "intermediate_size": SHAPE["intermediate"], "num_hidden_layers": layers,
              "num_attention_heads": SHAPE["heads"], "num_key_value_heads": SHAPE["kv_heads"],
              "head_dim": SHAPE["head_dim"], "vocab_size": SHAPE["vocab"], "max_position_embeddings": 4096,
              "rms_norm_eps": 1e-5, "rope_theta": 500000.0, "hidden_act": "relu2", "tie_word_embeddings": True,
              "quantization_config": {"quant_method": "bitnet", "linear_class": "bitlinear"}}
    with open(os.path.join(out_dir, "config.json"), "w") as out:
        json.dump(config, out, indent=1)
    with open(os.path.join(out_dir, "generation_config.json"), "w") as out:
        json.dump({"eos_token_id": [128001, 128009]}, out)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("out_dir")
    parser.add_argument("--layers", type=int, default=30)
    args = parser.parse_args()
    write_checkpoint(args.out_dir, args.layers)
