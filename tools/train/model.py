"""The ternary transformer the engine serves as architecture 1, with quantization-aware training.

Per layer: RMS norm, Q/K/V, rotary (element i turns with element i + D/2),
causal grouped-query attention, RMS sub-norm over H*D, O, residual; RMS norm,
gate and up, relu(gate)^2 * up, RMS sub-norm over I, down, residual. A final
RMS norm, and the embedding matrix doubles as the unembedding.

The forward pass quantizes where the engine does: every projection sees int8
activations (per row: amax floored at 1e-5, codes round-half-even of
x * 127 / amax, clamped to +-127) and ternary weights (per matrix: gamma =
max(mean |W|, 1e-5), codes round-half-even of W / gamma clamped to -1..1).
The logits use the int8 hidden row and the embedding quantized to int8 row
by row, as the engine's default unembedding does. Gradients pass straight
through every rounding.
"""
import math
from dataclasses import dataclass

import torch
import torch.nn.functional as F
from torch import nn

AMAX_FLOOR = 1e-5
GAMMA_FLOOR = 1e-5


@dataclass
class ModelShape:
    vocab_size: int = 4096
    hidden: int = 256
    layers: int = 6
    heads: int = 4
    kv_heads: int = 2
    head_dim: int = 64
    intermediate: int = 768
    context: int = 256
    rope_theta: float = 10000.0
    norm_eps: float = 1e-5


class _Int8Rows(torch.autograd.Function):
    """int8 per row (last dimension), returned dequantized; the gradient passes unchanged."""

    @staticmethod
    def forward(ctx, x):
        amax = x.abs().amax(dim=-1, keepdim=True).clamp_(min=AMAX_FLOOR)
        inverse = torch.div(amax.new_tensor(127.0), amax)  # a true division, as the engine's
        return (x * inverse).round_().clamp_(-127, 127).mul_(amax / 127.0)

    @staticmethod
    def backward(ctx, grad):
        return grad


def quantize_activations(x):
    return _Int8Rows.apply(x)


def ternary_codes(weight):
    """Codes -1, 0, +1 and the per-matrix gamma."""
    gamma = weight.detach().abs().mean().clamp(min=GAMMA_FLOOR)
    return torch.round(weight.detach() / gamma).clamp(-1, 1), gamma


class _Ternary(torch.autograd.Function):
    """codes * gamma; the gradient passes unchanged to the latent weights."""

    @staticmethod
    def forward(ctx, weight):
        codes, gamma = ternary_codes(weight)
        return codes * gamma

    @staticmethod
    def backward(ctx, grad):
        return grad


def quantize_ternary(weight):
    return _Ternary.apply(weight)


class RMSNorm(nn.Module):
    def __init__(self, width, eps):
        super().__init__()
        self.weight = nn.Parameter(torch.ones(width))
        self.eps = eps

    def forward(self, x):
        return x * torch.rsqrt(x.pow(2).mean(dim=-1, keepdim=True) + self.eps) * self.weight


class BitLinear(nn.Linear):
    """y = Q_ternary(W) x, for an input already quantized by quantize_activations."""

    def __init__(self, fan_in, fan_out):
        super().__init__(fan_in, fan_out, bias=False)

    def forward(self, x_quantized):
        return F.linear(x_quantized, quantize_ternary(self.weight))


def rope_tables(shape):
    """cos and sin per (position, dimension), both halves of a row alike; angles in double."""
    half = shape.head_dim // 2
    exponent = -2.0 * torch.arange(half, dtype=torch.float64) / shape.head_dim
    frequencies = torch.pow(torch.tensor(shape.rope_theta, dtype=torch.float64), exponent)
    angles = torch.arange(shape.context, dtype=torch.float64)[:, None] * frequencies[None, :]
    angles = torch.cat([angles, angles], dim=-1)
    return torch.cos(angles).float(), torch.sin(angles).float()


def rotate(x, cos, sin):
    """x: (..., T, D); element i pairs with element i + D/2."""
    half = x.shape[-1] // 2
    turned = torch.cat([-x[..., half:], x[..., :half]], dim=-1)
    return x * cos + turned * sin


def causal_mask(length, group):
    """Additive mask for `group` query heads stacked along the time axis of one key/value head."""
    mask = torch.full((length, length), float("-inf")).triu(1)
    return mask.repeat(group, 1)


class Attention(nn.Module):
    def __init__(self, shape):
        super().__init__()
        self.shape = shape
        d, D = shape.hidden, shape.head_dim
        self.norm = RMSNorm(d, shape.norm_eps)
        self.q = BitLinear(d, shape.heads * D)
        self.k = BitLinear(d, shape.kv_heads * D)
        self.v = BitLinear(d, shape.kv_heads * D)
        self.sub_norm = RMSNorm(shape.heads * D, shape.norm_eps)
        self.o = BitLinear(shape.heads * D, d)

    def forward(self, x, cos, sin, mask):
        """Query head h reads key/value head h // (H / Hkv): the query heads of one group are
        stacked along the time axis, so that one batched product serves them all."""
        s = self.shape
        batch, length, _ = x.shape
        group = s.heads // s.kv_heads
        a = quantize_activations(self.norm(x))
        q = self.q(a).view(batch, length, s.kv_heads, group, s.head_dim).permute(0, 2, 3, 1, 4)
        q = rotate(q, cos, sin).reshape(batch * s.kv_heads, group * length, s.head_dim)
        k = self.k(a).view(batch, length, s.kv_heads, s.head_dim).transpose(1, 2)
        k = rotate(k, cos, sin).reshape(batch * s.kv_heads, length, s.head_dim)
        v = self.v(a).view(batch, length, s.kv_heads, s.head_dim).transpose(1, 2)
        v = v.reshape(batch * s.kv_heads, length, s.head_dim)
        scores = torch.baddbmm(mask, q, k.transpose(1, 2), alpha=1.0 / math.sqrt(s.head_dim))
        mixed = torch.bmm(torch.softmax(scores, dim=-1), v)
        mixed = mixed.view(batch, s.kv_heads, group, length, s.head_dim).permute(0, 3, 1, 2, 4)
        mixed = mixed.reshape(batch, length, s.heads * s.head_dim)
        return self.o(quantize_activations(self.sub_norm(mixed)))


class FeedForward(nn.Module):
    def __init__(self, shape):
        super().__init__()
        d, I = shape.hidden, shape.intermediate
        self.norm = RMSNorm(d, shape.norm_eps)
        self.gate = BitLinear(d, I)
        self.up = BitLinear(d, I)
        self.sub_norm = RMSNorm(I, shape.norm_eps)
        self.down = BitLinear(I, d)

    def forward(self, x):
        a = quantize_activations(self.norm(x))
        gated = F.relu(self.gate(a)).square() * self.up(a)
        return self.down(quantize_activations(self.sub_norm(gated)))


class Block(nn.Module):
    def __init__(self, shape):
        super().__init__()
        self.attention = Attention(shape)
        self.feed_forward = FeedForward(shape)

    def forward(self, x, cos, sin, mask):
        x = x + self.attention(x, cos, sin, mask)
        return x + self.feed_forward(x)


class TernaryLM(nn.Module):
    def __init__(self, shape):
        super().__init__()
        self.shape = shape
        self.embedding = nn.Embedding(shape.vocab_size, shape.hidden)
        self.blocks = nn.ModuleList(Block(shape) for _ in range(shape.layers))
        self.final_norm = RMSNorm(shape.hidden, shape.norm_eps)
        cos, sin = rope_tables(shape)
        self.register_buffer("cos", cos, persistent=False)
        self.register_buffer("sin", sin, persistent=False)
        self.apply(self._initialize)

    @staticmethod
    def _initialize(module):
        if isinstance(module, (nn.Linear, nn.Embedding)):
            nn.init.normal_(module.weight, mean=0.0, std=0.02)

    def forward(self, tokens):
        length = tokens.shape[1]
        cos, sin = self.cos[:length], self.sin[:length]
        mask = causal_mask(length, self.shape.heads // self.shape.kv_heads)
        x = self.embedding(tokens)
        for block in self.blocks:
            x = block(x, cos, sin, mask)
        hidden = quantize_activations(self.final_norm(x))
        table = quantize_activations(self.embedding.weight)  # int8 row by row, as the engine's unembedding
        return hidden @ table.t()

    def loss(self, tokens, targets):
        logits = self.forward(tokens)
        return F.cross_entropy(logits.view(-1, logits.shape[-1]), targets.reshape(-1))

    def parameter_count(self):
        return sum(p.numel() for p in self.parameters())
