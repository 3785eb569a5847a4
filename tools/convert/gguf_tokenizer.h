// The tokenizer of a GGUF file, written out as the files a checkpoint
// directory carries: "tokenizer.json" from the tokenizer.ggml.* metadata
// (byte-level BPE only) and "tokenizer_config.json" with the chat template
// and the special tokens.
#pragma once

#include <filesystem>
#include <string>

#include "tools/convert/gguf_file.h"

namespace quorvel::convert {

struct TokenizerExport {
  bool written = false;
  std::string note;  // one line for the converter's log: what was written, or why nothing was
};

// Writes the files into `dir` when the metadata holds a byte-level BPE
// tokenizer ("gpt2") with a pre-tokenizer whose split rule is known; for any
// other tokenizer writes nothing and says why. Throws ConvertError for
// metadata that contradicts itself (token_type or scores of another length
// than tokens, a merge naming an unknown symbol, an id outside the vocabulary).
TokenizerExport write_gguf_tokenizer(const GgufMetadata& metadata, const std::filesystem::path& dir);

}  // namespace quorvel::convert
