#!/usr/bin/python3
"""Greedy continuations computed the way the engine computes them, step for step.

  /usr/bin/python3 tools/train/engine_reference.py --checkpoint EXPORT --converted CONVERTED \\
      --out reference_continuations.json

Reads the exported checkpoint (packed ternary codes and gammas, bf16 embedding
and norms) and the converted model's rope.cache, and runs the engine's
arithmetic in numpy: bf16 rows between steps (saturating rounding after norms,
rotary, activation and residual adds; nearest-even after the ternary
products), the int8 activation quantizer, integer ternary dot products scaled
in double by gamma and the row scale, RMS norms with four float lanes, the
online-softmax attention with the polynomial exponential on groups of four,
and logits from the int8 hidden row against the embedding quantized to int8
row by row. For each prompt it stores every generated token and the gap
between the two best logits at that step.

Fused multiply-adds are formed in double and rounded to float: exact for the
sums of squares (a bf16 square is exact in float), and off from the fused
result only in rare double-rounding cases elsewhere.
"""
import argparse
import json
import os
import struct
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bpe  # noqa: E402

F32 = np.float32
BF16_MAX = F32(3.3895314e38)
AMAX_FLOOR = F32(1e-5)
ATTENTION_BLOCK = 64
EXP_GROUP = 4

PROMPTS = [
    "In the beginning",
    "And the LORD said unto Moses,",
    "Blessed are the",
    "The LORD is my shepherd;",
    "And it came to pass, when",
    "For God so loved the world,",
    "Then answered Jesus and said unto them,",
    "O give thanks unto the LORD;",
    "And the king of Egypt",
    "Wherefore, my brethren,",
    "Hear, O Israel:",
    "And he said,",
]


def narrow_saturate(x):
    """float32 -> nearest bf16, ties away from zero, clamped to the largest finite bf16."""
    bits = np.clip(np.asarray(x, F32), -BF16_MAX, BF16_MAX).view(np.uint32).astype(np.uint64)
    return (((bits + 0x8000) >> 16) << 16).astype(np.uint32).view(F32)


def narrow_nearest_even(x):
    bits = np.asarray(x, F32).view(np.uint32).astype(np.uint64)
    return (((bits + 0x7FFF + ((bits >> 16) & 1)) >> 16) << 16).astype(np.uint32).view(F32)


def widen(bits):
    return (np.asarray(bits, np.uint16).astype(np.uint32) << 16).view(F32)


def fma(a, b, c):
    return (np.asarray(a, np.float64) * np.asarray(b, np.float64) + np.asarray(c, np.float64)).astype(F32)


def expf(x):
    return np.exp(np.asarray(x, np.float64)).astype(F32)


def float_of_bits(bits):
    return np.array(bits, dtype=np.uint32).view(F32)[()]


LOG2E = float_of_bits(0x3FB8AA3B)
EXP_CUBIC = [float_of_bits(b) for b in (0x3D64AD4C, 0x3E75EAD4, 0x3F318008, 0x3F7FFB19)]  # c3, c2, c1, c0


def poly_exp(x):
    """The engine's polynomial exponential, step by step in float."""
    t = np.clip(np.asarray(x, F32), F32(-87.0), F32(88.0)) * LOG2E
    n = np.floor(t + F32(0.5))
    f = (t - n).astype(F32)
    c3, c2, c1, c0 = EXP_CUBIC
    p = fma(f, c3, c2)
    p = fma(f, p, c1)
    p = fma(f, p, c0)
    return (p * np.ldexp(F32(1.0), n.astype(np.int32))).astype(F32)


def quantize_rows_i8(x):
    """(codes, scales) of rows of bf16 values: amax floored at 1e-5, scale amax / 127,
    codes rint(x * (127 / amax)) clamped to +-127."""
    x = np.atleast_2d(x)
    amax = np.maximum(np.abs(x).max(axis=-1), F32(np.finfo(F32).tiny))
    amax = np.maximum(amax, AMAX_FLOOR).astype(F32)
    scale = (amax / F32(127.0)).astype(F32)
    inverse = (F32(127.0) / amax).astype(F32)
    codes = np.clip(np.rint((x * inverse[:, None]).astype(F32)), -127, 127)
    return codes, scale


def rms_norm(x, weight, eps):
    """Sum of squares in four lanes (lane j: elements j, j+4, ...), merged (l0 + l1) + (l2 + l3)."""
    squares = (x * x).astype(F32).reshape(-1, 4)
    lanes = np.add.accumulate(squares, axis=0, dtype=F32)[-1]
    total = F32((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]))
    mean = F32(total / F32(len(x)))
    inverse = F32(F32(1.0) / np.sqrt(F32(eps + mean)))
    return narrow_saturate((x * inverse).astype(F32) * weight)


def rotate(x, cos, sin):
    """x: (heads, D) bf16 values, turned by one position's table row (element i with i + D/2)."""
    half = x.shape[-1] // 2
    a, b = x[:, :half], x[:, half:]
    second = fma(a, sin[half:], (b * cos[half:]).astype(F32))
    first = fma(-b, sin[:half], (a * cos[:half]).astype(F32))
    return narrow_saturate(np.concatenate([first, second], axis=-1))


class Ternary:
    """One projection: codes -1..1 (kept as float64 for exact integer sums) and gamma."""

    def __init__(self, packed, gamma):
        planes = [((packed >> (2 * k)) & 3).astype(np.int8) - 1 for k in range(4)]
        self.codes = np.concatenate(planes, axis=0).astype(np.float64)
        self.gamma = float(gamma)

    def __call__(self, codes, scale):
        sums = self.codes @ codes.astype(np.float64).ravel()
        return narrow_nearest_even((sums * (self.gamma * float(scale))).astype(F32))


def read_safetensors(path):
    dtypes = {"U8": np.uint8, "F32": F32, "BF16": np.uint16}
    with open(path, "rb") as source:
        length = struct.unpack("<Q", source.read(8))[0]
        header = json.loads(source.read(length))
        data = source.read()
    tensors = {}
    for name, info in header.items():
        if name == "__metadata__":
            continue
        begin, end = info["data_offsets"]
        array = np.frombuffer(data[begin:end], dtype=dtypes[info["dtype"]]).reshape(info["shape"])
        tensors[name] = widen(array) if info["dtype"] == "BF16" else array
    return tensors


def read_rope_cache(path, head_dim, positions):
    with open(path, "rb") as source:
        header = source.read(12)
        assert header[:4] == b"QVRC", f"{path}: not a rope cache"
        tables = np.frombuffer(source.read(), dtype=F32)
    count = head_dim * positions
    return tables[:count].reshape(positions, head_dim), tables[count:2 * count].reshape(positions, head_dim)


class Layer:
    def __init__(self, tensors, prefix):
        t = lambda name: tensors[prefix + name]  # noqa: E731
        self.attention_norm = t("input_layernorm.weight")
        self.attention_sub_norm = t("self_attn.attn_sub_norm.weight")
        self.ffn_norm = t("post_attention_layernorm.weight")
        self.ffn_sub_norm = t("mlp.ffn_sub_norm.weight")
        projection = lambda name: Ternary(t(name + ".weight"), t(name + ".weight_scale")[0])  # noqa: E731
        self.q, self.k, self.v, self.o = (projection("self_attn." + n) for n in ("q_proj", "k_proj", "v_proj",
                                                                                  "o_proj"))
        self.gate, self.up, self.down = (projection("mlp." + n) for n in ("gate_proj", "up_proj", "down_proj"))
        self.keys, self.values = [], []


def attention_scores(q, keys, head_dim):
    """q: (H, D), keys: (P, H, D) -> (H, P) scores: four lanes, products exact in float,
    lanes merged ((l0 + l1) + l2) + l3, then times 1 / sqrt(D)."""
    products = (keys * q[None]).astype(F32)
    lanes = np.add.accumulate(products.reshape(*products.shape[:2], -1, 4), axis=2, dtype=F32)[:, :, -1]
    dots = ((lanes[..., 0] + lanes[..., 1]) + lanes[..., 2]) + lanes[..., 3]
    scale = F32(F32(1.0) / np.sqrt(F32(head_dim)))
    return (dots * scale).astype(F32).T


def attend(q, keys, values, head_dim):
    """Online softmax over blocks of 64 positions; q: (H, D), keys and values: (P, H, D)."""
    scores = attention_scores(q, keys, head_dim)
    heads, positions = scores.shape
    best = np.full(heads, -np.inf, dtype=F32)
    total = np.zeros(heads, dtype=F32)
    acc = np.zeros((heads, head_dim), dtype=F32)
    for first in range(0, positions, ATTENTION_BLOCK):
        block = scores[:, first:first + ATTENTION_BLOCK]
        new_best = np.maximum(best, block.max(axis=1))
        if np.isfinite(best).all():
            correction = expf(best - new_best)
            total = (total * correction).astype(F32)
            acc = (acc * correction[:, None]).astype(F32)
        best = new_best
        shifted = (block - best[:, None]).astype(F32)
        grouped = block.shape[1] - block.shape[1] % EXP_GROUP
        weights = np.concatenate([poly_exp(shifted[:, :grouped]), expf(shifted[:, grouped:])], axis=1)
        total = np.add.accumulate(np.concatenate([total[:, None], weights], axis=1), axis=1, dtype=F32)[:, -1]
        v = values[first:first + block.shape[1]].transpose(1, 0, 2)
        terms = (weights[:, :, None] * v).astype(F32)
        acc = np.add.accumulate(np.concatenate([acc[:, None], terms], axis=1), axis=1, dtype=F32)[:, -1]
    return narrow_saturate(acc * (F32(1.0) / total)[:, None])


class EngineReference:
    def __init__(self, checkpoint_dir, converted_dir):
        with open(os.path.join(checkpoint_dir, "config.json")) as source:
            self.config = c = json.load(source)
        tensors = read_safetensors(os.path.join(checkpoint_dir, "model.safetensors"))
        self.eps = F32(c["rms_norm_eps"])
        self.heads, self.kv_heads, self.head_dim = c["num_attention_heads"], c["num_key_value_heads"], c["head_dim"]
        self.embedding = tensors["model.embed_tokens.weight"]
        self.final_norm = tensors["model.norm.weight"]
        self.table_codes, self.table_scales = quantize_rows_i8(self.embedding)
        self.layers = [Layer(tensors, f"model.layers.{i}.") for i in range(c["num_hidden_layers"])]
        self.cos, self.sin = read_rope_cache(os.path.join(converted_dir, "rope.cache"), self.head_dim,
                                             c["max_position_embeddings"])

    def reset(self):
        for layer in self.layers:
            layer.keys, layer.values = [], []

    def norm_quantize(self, x, weight):
        normed = rms_norm(x, weight, self.eps)
        codes, scale = quantize_rows_i8(normed)
        return codes[0], scale[0]

    def attention_block(self, layer, x, position):
        codes, scale = self.norm_quantize(x, layer.attention_norm)
        D = self.head_dim
        key = rotate(layer.k(codes, scale).reshape(self.kv_heads, D), self.cos[position], self.sin[position])
        layer.keys.append(key)
        layer.values.append(layer.v(codes, scale).reshape(self.kv_heads, D))
        query = rotate(layer.q(codes, scale).reshape(self.heads, D), self.cos[position], self.sin[position])
        group = self.heads // self.kv_heads
        keys = np.repeat(np.stack(layer.keys), group, axis=1)
        values = np.repeat(np.stack(layer.values), group, axis=1)
        mixed = attend(query, keys, values, D).ravel()
        codes, scale = self.norm_quantize(mixed, layer.attention_sub_norm)
        return narrow_saturate(x + layer.o(codes, scale))

    def feed_forward_block(self, layer, x):
        codes, scale = self.norm_quantize(x, layer.ffn_norm)
        gate, up = layer.gate(codes, scale), layer.up(codes, scale)
        r = np.where(gate > 0, gate, F32(0.0)).astype(F32)
        gated = narrow_saturate(((r * r).astype(F32) * up).astype(F32))
        codes, scale = self.norm_quantize(gated, layer.ffn_sub_norm)
        return narrow_saturate(x + layer.down(codes, scale))

    def step(self, token, position):
        """Feeds one token at `position`; returns the float logits of the next one."""
        x = self.embedding[token].copy()
        for layer in self.layers:
            x = self.attention_block(layer, x, position)
            x = self.feed_forward_block(layer, x)
        hidden_codes, hidden_scale = quantize_rows_i8(rms_norm(x, self.final_norm, self.eps))
        sums = (self.table_codes.astype(np.float64) @ hidden_codes[0].astype(np.float64)).astype(F32)
        return ((sums * hidden_scale[0]).astype(F32) * self.table_scales).astype(F32)

    def continue_greedily(self, prompt_ids, count, end_ids):
        """Greedy tokens and, per step, the best logit minus the second best."""
        self.reset()
        for position, token in enumerate(prompt_ids[:-1]):
            self.step(token, position)
        tokens, gaps, token = [], [], prompt_ids[-1]
        for position in range(len(prompt_ids) - 1, len(prompt_ids) - 1 + count):
            logits = self.step(token, position)
            token = int(np.argmax(logits))
            runner_up = np.max(np.delete(logits, token))
            tokens.append(token)
            gaps.append(float(logits[token] - runner_up))
            if token in end_ids:
                break
        return tokens, gaps


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--checkpoint", required=True, help="the directory train.py exported")
    parser.add_argument("--converted", required=True, help="its conversion by quorvel-convert (for rope.cache)")
    parser.add_argument("--out", required=True, help="JSON file to write")
    parser.add_argument("--tokens", type=int, default=48)
    args = parser.parse_args(argv)
    reference = EngineReference(args.checkpoint, args.converted)
    tokenizer = bpe.Tokenizer.load(os.path.join(args.checkpoint, "tokenizer.json"), bpe.compile_split_regex())
    begin, end = tokenizer.added[bpe.BEGIN_OF_TEXT], tokenizer.added[bpe.END_OF_TEXT]
    results = []
    for prompt in PROMPTS:
        prompt_ids = [begin] + tokenizer.encode(prompt)
        tokens, gaps = reference.continue_greedily(prompt_ids, args.tokens, {end})
        results.append({"prompt": prompt, "prompt_ids": prompt_ids, "tokens": tokens,
                        "gaps": [round(g, 6) for g in gaps], "text": tokenizer.decode(tokens)})
        print(f"{prompt!r} -> {tokenizer.decode(tokens)!r}  (smallest gap {min(gaps):.4f})", flush=True)
    with open(args.out, "w", encoding="utf-8") as out:
        json.dump({"checkpoint": os.path.normpath(args.checkpoint), "tokens": args.tokens, "continuations": results},
                  out, indent=1, ensure_ascii=False)
        out.write("\n")


if __name__ == "__main__":
    main(sys.argv[1:])
