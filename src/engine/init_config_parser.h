// Reading the init config: the first block on standard input, parsed into
// the record of config/init_config.h.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "config/init_config.h"
#include "engine/key_value_block.h"

namespace quorvel {

// Builds the record from a block; throws std::runtime_error with the
// engine's message (or the standard conversion's exception) on bad values.
InitConfig parse_init_config(const KeyValueBlock& block);

// Lower-cases `value` and matches it against the format texts; throws
// "Unknown value for <key>: <lower-cased value>" otherwise.
QuantFormat parse_quant_format(const std::string& key, const std::string& value);

// Splits at ',' (empty pieces skipped) and converts each piece as an
// unsigned 64-bit number. Shared with the request key "tokens".
std::vector<std::int64_t> parse_token_list(const std::string& value);

// Reads the first block of `in` and parses it. Throws "Failed to read init
// config block" when the reader finds no block (a result below 1).
InitConfig read_init_config(std::istream& in);

// The driver's refusals after a successful parse, first failing check only:
// a TERNARY lora_quant, then a NONE or TERNARY unembed_quant. nullopt when the
// formats are supported.
std::optional<std::string> unsupported_format_message(const InitConfig& config);

}  // namespace quorvel
