#!/usr/bin/python3
"""Unit tests of the training package: /usr/bin/python3 -m unittest discover -s tools/train"""
import os
import struct
import sys
import tempfile
import unittest

import numpy as np
import torch

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bpe  # noqa: E402
import dataset  # noqa: E402
import engine_reference as ref  # noqa: E402
import export  # noqa: E402
import model  # noqa: E402

VERSES = ["In the beginning God created the heaven and the earth.\n",
          "And the earth was without form, and void; and darkness was upon the face of the deep.\n\n",
          "And God said, Let there be light: and there was light.\n"]
SMALL = model.ModelShape(vocab_size=300, hidden=128, layers=2, heads=2, kv_heads=1, head_dim=64, intermediate=256,
                         context=32)


def small_tokenizer():
    regex = bpe.compile_split_regex()
    merges, token_bytes = bpe.train_bpe(VERSES * 3, SMALL.vocab_size, dataset.ADDED_TOKENS, regex)
    return bpe.Tokenizer(merges, token_bytes, dataset.ADDED_TOKENS, regex)


def write_rope_cache(path, shape):
    cos, sin = model.rope_tables(shape)
    with open(path, "wb") as out:
        out.write(b"QVRC" + struct.pack("<II", 4, 0))
        out.write(cos.numpy().astype(np.float32).tobytes() + sin.numpy().astype(np.float32).tobytes())


def bf16_values(rng, shape, scale=1.0):
    return ref.narrow_nearest_even((rng.standard_normal(shape) * scale).astype(np.float32))


class Bf16Rounding(unittest.TestCase):
    def test_the_two_narrowing_rules_differ_on_a_tie(self):
        tie = np.array([1.00390625], dtype=np.float32)
        self.assertEqual(export.bf16_bits(tie)[0], 0x3F80)
        self.assertEqual(ref.narrow_saturate(tie).view(np.uint32)[0] >> 16, 0x3F81)

    def test_saturating_rule_clamps_and_nearest_even_overflows(self):
        big = np.array([3.4e38], dtype=np.float32)
        self.assertEqual(ref.narrow_saturate(big).view(np.uint32)[0] >> 16, 0x7F7F)
        self.assertEqual(export.bf16_bits(big)[0], 0x7F80)


class Quantizers(unittest.TestCase):
    def test_zero_row_gets_the_floored_scale(self):
        codes, scales = ref.quantize_rows_i8(np.zeros((1, 8), dtype=np.float32))
        self.assertEqual(scales[0], np.float32(1e-5) / np.float32(127))
        self.assertTrue((codes == 0).all())

    def test_halfway_codes_round_to_even(self):
        row = np.array([[127.0, 2.5, -3.5, 0.5]], dtype=np.float32)
        codes, _ = ref.quantize_rows_i8(row)
        self.assertEqual(codes[0].tolist(), [127, 2, -4, 0])

    def test_training_quantizer_matches_the_engine_codes(self):
        rows = bf16_values(np.random.default_rng(1), (64, 256), 3.0)
        codes, scales = ref.quantize_rows_i8(rows)
        trained = model.quantize_activations(torch.from_numpy(rows)).numpy()
        np.testing.assert_allclose(trained, codes * scales[:, None], rtol=1e-6, atol=0)

    def test_ternary_codes_follow_the_absmean_rule(self):
        weight = torch.tensor([[0.5, 1.5], [-0.5, -1.5], [4.0, 0.0], [0.0, 0.0]])
        codes, gamma = model.ternary_codes(weight)
        self.assertEqual(gamma.item(), 1.0)
        self.assertEqual(codes.tolist(), [[0, 1], [0, -1], [1, 0], [0, 0]])
        zeros_codes, zeros_gamma = model.ternary_codes(torch.zeros(2, 4))
        self.assertAlmostEqual(zeros_gamma.item(), 1e-5)
        self.assertEqual(zeros_codes.abs().sum().item(), 0)

    def test_packed_rows_are_interleaved_over_the_four_bit_planes(self):
        codes = np.array([[0], [1], [2], [0], [1], [2], [0], [1]], dtype=np.uint8)
        packed = export.pack_ternary_rows(codes)
        self.assertEqual(packed[:, 0].tolist(), [0 | 2 << 2 | 1 << 4 | 0 << 6, 1 | 0 << 2 | 2 << 4 | 1 << 6])


class EngineArithmetic(unittest.TestCase):
    def test_polynomial_exponential_is_close_and_clamped(self):
        x = np.linspace(-20, 0, 101).astype(np.float32)
        np.testing.assert_allclose(ref.poly_exp(x), np.exp(x), rtol=2e-3)
        self.assertEqual(ref.poly_exp(np.float32(-100.0)), ref.poly_exp(np.float32(-87.0)))
        self.assertGreater(ref.poly_exp(np.float32(-100.0)), 0.0)

    def test_rms_norm_of_zeros_is_zeros(self):
        out = ref.rms_norm(np.zeros(256, dtype=np.float32), np.ones(256, dtype=np.float32), np.float32(1e-6))
        self.assertTrue((out == 0).all())

    def test_rotation_pairs_halves_as_training_does(self):
        rng = np.random.default_rng(2)
        x = bf16_values(rng, (2, 64))
        cos, sin = model.rope_tables(SMALL)
        engine = ref.rotate(x, cos[5].numpy(), sin[5].numpy())
        trained = model.rotate(torch.from_numpy(x), cos[5], sin[5]).numpy()
        np.testing.assert_allclose(engine, trained, rtol=1e-2, atol=1e-2)

    def test_attention_with_one_position_returns_its_value(self):
        rng = np.random.default_rng(3)
        q, k, v = (bf16_values(rng, shape) for shape in [(2, 64), (1, 2, 64), (1, 2, 64)])
        np.testing.assert_array_equal(ref.attend(q, k, v, 64), v[0])


class Tokenizer(unittest.TestCase):
    def test_verse_lines_encode_as_the_joined_text_does(self):
        tokenizer = small_tokenizer()
        joined = sum((tokenizer.encode(v) for v in VERSES), [])
        self.assertEqual(tokenizer.encode("".join(VERSES)), joined)

    def test_saved_file_encodes_and_decodes_alike(self):
        tokenizer = small_tokenizer()
        text = "And the earth's light, 1611 — naïve\t  end\n"
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "tokenizer.json")
            tokenizer.save(path)
            loaded = bpe.Tokenizer.load(path, tokenizer.regex)
        self.assertEqual(loaded.encode(text), tokenizer.encode(text))
        self.assertEqual(loaded.decode(loaded.encode(text)), text)
        self.assertEqual(loaded.vocab_size, SMALL.vocab_size)


class Export(unittest.TestCase):
    def test_reference_forward_follows_the_trained_model(self):
        torch.manual_seed(0)
        trained = model.TernaryLM(SMALL)
        tokenizer = small_tokenizer()
        prompt = [tokenizer.added[bpe.BEGIN_OF_TEXT]] + tokenizer.encode("And God said, Let there be")
        with tempfile.TemporaryDirectory() as directory:
            export.export_checkpoint(trained, tokenizer, directory)
            write_rope_cache(os.path.join(directory, "rope.cache"), SMALL)
            engine = ref.EngineReference(directory, directory)
            for position, token in enumerate(prompt):
                engine_logits = engine.step(token, position)
        with torch.no_grad():
            trained_logits = trained(torch.tensor([prompt]))[0, -1].numpy()
        self.assertGreater(np.corrcoef(engine_logits, trained_logits)[0, 1], 0.99)

    def test_exported_projection_unpacks_to_the_training_weights(self):
        torch.manual_seed(0)
        weight = torch.randn(256, 128)
        entries = export.projection_entries("p", weight)
        _, shape, data = entries["p.weight"]
        packed = np.frombuffer(data, dtype=np.uint8).reshape(shape)
        gamma = np.frombuffer(entries["p.weight_scale"][2], dtype=np.float32)[0]
        unpacked = ref.Ternary(packed, gamma)
        codes, trained_gamma = model.ternary_codes(weight)
        np.testing.assert_array_equal(unpacked.codes, codes.numpy())
        self.assertEqual(gamma, trained_gamma.item())


if __name__ == "__main__":
    unittest.main()
