#include "tools/convert/convert_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "engine/init_config_parser.h"
#include "tools/convert/checkpoint.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/model_conversion.h"
#include "tools/convert/peft_adapter.h"
#include "tools/convert/staging_directory.h"
#include "tools/lib/init_text_writer.h"
#include "tools/lib/lora_file_writer.h"
#include "tools/lib/model_file_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/lib/tensor_layout.h"
#include "tools/lib/utf8_path.h"

namespace quorvel::convert {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct CommandLine {
  std::vector<std::string> paths;  // SOURCE OUT_DIR, or MODEL_DIR with --lora
  std::string to;
  std::uint64_t max_context = 4096;
  bool force = false;
  std::string lora;
};

const char* arch_name(std::int32_t arch) {
  constexpr const char* kNames[] = {"",
                                    "BitNet, ternary",
                                    "Llama, ternary",
                                    "Llama, ternary",
                                    "Qwen3, q1_0_128",
                                    "Qwen3, q1.58",
                                    "Qwen3, bf16 (q8_0 in memory)"};
  return arch >= 1 && arch <= 6 ? kNames[arch] : "unknown";
}

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::string id_list(const InitConfig& c) {
  std::string text;
  for (std::uint64_t i = 0; i < c.num_eos_tokens; ++i) text += (i ? ", " : "") + std::to_string(c.eos_tokens[i]);
  return text.empty() ? "none" : text;
}

void print_summary(std::ostream& out, const Checkpoint& checkpoint, const ConversionReport& report,
                   const fs::path& destination, double seconds) {
  const InitConfig& c = checkpoint.config;
  const double bits = 8.0 * static_cast<double>(report.output_bytes) / static_cast<double>(report.parameters);
  out << "Converted " << checkpoint.origin.string() << " into " << destination.string() << " in " << std::fixed
      << std::setprecision(1) << seconds << " s ("
      << format_bytes(static_cast<std::uint64_t>(static_cast<double>(report.input_bytes) / seconds))
      << "/s of input)\n";
  out << "  architecture      " << c.arch_type << " (" << arch_name(c.arch_type) << "; from " << checkpoint.description
      << ")\n";
  out << "  parameters        " << std::setprecision(3) << static_cast<double>(report.parameters) / 1e9 << " G in "
      << report.tensors << " tensors\n";
  out << "  qmodel.tensors    " << format_bytes(report.output_bytes) << ", " << std::setprecision(2) << bits
      << " bits per weight\n";
  if (report.first_query_gamma) {
    out << "  layer 0 Q gamma   " << std::defaultfloat << std::setprecision(6) << *report.first_query_gamma << " ("
        << report.first_query_scale_text << ")\n";
  }
  if (!report.narrowing.tensor.empty()) {
    out << "  scales to bf16    largest relative change " << std::scientific << std::setprecision(2)
        << report.narrowing.largest_relative_change << " (" << report.narrowing.tensor << ")\n";
  }
  out << std::defaultfloat << std::setprecision(6);
  out << "  context           " << c.max_position_embeddings
      << " positions (the model's own: " << checkpoint.native_context << "; --max-context caps it)\n";
  out << "  rope              theta " << c.rope_theta << (checkpoint.rope_note.empty() ? "" : "; ")
      << checkpoint.rope_note << "\n";
  out << "  eos tokens        " << id_list(c) << "\n";
  if (!report.unused_tensors.empty()) {
    out << "  not used          " << report.unused_tensors.size() << " tensors of the checkpoint, e.g. "
        << report.unused_tensors.front() << "\n";
  }
}

int convert_model(const CommandLine& line, std::ostream& out, bool redraw) {
  const Clock::time_point start = Clock::now();
  ConvertOptions options;
  options.max_context = line.max_context;
  if (line.to == "q1_0_128") options.to = tools::WeightFormat::Q1_0;
  if (line.to == "q1.58") options.to = tools::WeightFormat::Q1_58;
  const fs::path destination = tools::utf8_path(line.paths[1]);
  const Checkpoint checkpoint = open_checkpoint(tools::utf8_path(line.paths[0]), options);
  for (const std::string& note : checkpoint.notes) out << note << "\n";
  const ModelConversion conversion(checkpoint);
  StagingDirectory staging(destination, line.force);
  const ConversionPlanSize size = conversion.size();
  ProgressBar progress(out, redraw, size.tensors, size.input_bytes);
  const ConversionReport report = conversion.write(staging.path() / tools::kModelFileName, progress);
  progress.finish();
  const InitConfig& c = checkpoint.config;
  tools::write_rope_cache(staging.path() / tools::kRopeCacheFileName, checkpoint.rope_frequencies,
                          c.max_position_embeddings);
  tools::write_init_text(staging.path() / tools::kInitTextFileName, c);
  const std::string tokenizer_note = checkpoint.export_tokenizer(staging.path());
  staging.commit();
  print_summary(out, checkpoint, report, destination, seconds_since(start));
  out << "  " << tokenizer_note << "\n";
  out << "Run it: quorvel-inference " << destination.string() << " < " << (destination / "init.txt").string()
      << " (then request blocks)\n";
  return 0;
}

// The converted model's init config, refused when no model could have it.
InitConfig read_model_config(const fs::path& model_dir) {
  const fs::path file = model_dir / tools::kInitTextFileName;
  std::ifstream init(file, std::ios::binary);
  if (!init) throw ConvertError(file, "cannot be opened (convert the base model first)");
  try {
    const InitConfig config = read_init_config(init);
    if (const auto problem = tools::unwritable_shape(config)) throw ConvertError(file, *problem);
    return config;
  } catch (const ConvertError&) {
    throw;
  } catch (const std::exception& error) {
    throw ConvertError(file, error.what());
  }
}

int convert_adapter(const CommandLine& line, std::ostream& out) {
  const fs::path model_dir = tools::utf8_path(line.paths[0]);
  const InitConfig model = read_model_config(model_dir);
  const fs::path target = model_dir / tools::kLoraFileName;
  const fs::path partial = model_dir / (std::string(tools::kLoraFileName) + ".partial-" + std::to_string(::getpid()));
  try {
    const AdapterSummary summary = convert_peft_adapter(line.lora, model, partial);
    fs::rename(partial, target);
    out << "Wrote " << target.string() << ": rank " << summary.rank << ", " << summary.modules << " projections";
    if (summary.padded_modules) out << " (" << summary.padded_modules << " of a smaller rank, padded with zeros)";
    out << "\nUse it with lora_dir=" << model_dir.string() << " in the init config.\n";
  } catch (...) {
    std::error_code ignored;
    fs::remove(partial, ignored);
    throw;
  }
  return 0;
}

void define_options(CLI::App& app, CommandLine& line) {
  app.add_option("paths", line.paths, "SOURCE OUT_DIR (or MODEL_DIR with --lora)")->required()->expected(1, 2);
  app.add_option("--to", line.to, "quantize a bf16 Qwen3 checkpoint to q1_0_128 or q1.58 (post-training)")
      ->check(CLI::IsMember({"q1_0_128", "q1.58"}));
  app.add_option("--max-context", line.max_context, "cap the context length (default 4096)")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 24));
  app.add_flag("--force", line.force, "replace OUT_DIR if it exists and is not empty");
  app.add_option("--lora", line.lora, "convert the PEFT adapter in this directory into MODEL_DIR/qmodel.lora");
  app.footer(
      "SOURCE is a checkpoint directory (config.json and .safetensors files) or a .gguf file.\n"
      "OUT_DIR receives qmodel.tensors, rope.cache, init.txt and the tokenizer files.");
}

}  // namespace

int run_convert(std::span<const std::string_view> args, std::ostream& out, std::ostream& err) {
  CLI::App app("Converts a published checkpoint into a model directory the engine runs.", "quorvel-convert");
  // The same options on every platform: a path such as /data/model is a path on Windows too, not "/data".
  app.allow_windows_style_options(false);
  CommandLine line;
  define_options(app, line);
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
    if (line.lora.empty() != (line.paths.size() == 2)) {
      throw CLI::ValidationError(line.lora.empty() ? "expected SOURCE and OUT_DIR" : "--lora takes one MODEL_DIR");
    }
  } catch (const CLI::CallForHelp&) {
    out << app.help();
    return 0;
  } catch (const CLI::ParseError& error) {
    err << "Error: " << error.what() << " (see --help)" << std::endl;
    return 2;
  }
  try {
    const bool redraw = &out == &std::cerr && ::isatty(STDERR_FILENO);
    return line.lora.empty() ? convert_model(line, out, redraw) : convert_adapter(line, out);
  } catch (const std::exception& error) {
    err << "Error: " << error.what() << std::endl;
    return 1;
  }
}

}  // namespace quorvel::convert
