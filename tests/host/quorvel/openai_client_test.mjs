// quorvel serve as the OpenAI JavaScript client sees it: a small random model
// served on a free loopback port with an API key, then chat completions
// (whole and streamed), plain completions, the model list and refused keys
// through the client, and SIGTERM ending the server with status 0.
//
// node openai_client_test.mjs QUORVEL MAKE_MODEL TOKENIZER_DIR OPENAI_PACKAGE_DIR
//   QUORVEL             the quorvel command (quorvel-inference beside it)
//   MAKE_MODEL          the quorvel-make-model tool
//   TOKENIZER_DIR       a folder holding Llama 3's tokenizer.json and tokenizer_config.json
//   OPENAI_PACKAGE_DIR  the unpacked openai npm package
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { pathToFileURL } from 'node:url';

const [quorvel, makeModel, tokenizerDir, openaiDir] = process.argv.slice(2);
if (!openaiDir || process.argv.length !== 6) {
  console.error('Error: usage: node openai_client_test.mjs QUORVEL MAKE_MODEL TOKENIZER_DIR OPENAI_PACKAGE_DIR');
  process.exit(2);
}
for (const file of [quorvel, makeModel, path.join(tokenizerDir, 'tokenizer.json'), path.join(openaiDir, 'index.mjs')]) {
  if (!fs.existsSync(file)) {
    console.error(`Error: ${file} does not exist`);
    process.exit(2);
  }
}

const { default: OpenAI, AuthenticationError, BadRequestError } = await import(pathToFileURL(path.join(openaiDir, 'index.mjs')));

const READY_TIMEOUT_MS = 30_000;
const EXIT_TIMEOUT_MS = 10_000;
const REQUEST_TIMEOUT_MS = 60_000;
const MODEL_NAME = 'tiny-llama3';

const workDir = fs.mkdtempSync(path.join(os.tmpdir(), 'quorvel-openai-'));
const modelDir = path.join(workDir, MODEL_NAME);
const apiKey = `key-${randomBytes(12).toString('hex')}`;

let server = null;        // the child process
let serverLog = '';       // everything it wrote to standard error
let serverExit = null;    // a promise of {code, signal}
let baseURL = null;
let client = null;
let anyFailure = false;

// Runs a test body and remembers a failure, so that the end can show the server's log.
function check(name, body) {
  test(name, { timeout: REQUEST_TIMEOUT_MS }, async () => {
    try {
      await body();
    } catch (error) {
      anyFailure = true;
      throw error;
    }
  });
}

function makeTinyModel() {
  const made = spawnSync(makeModel, [modelDir, '--arch', '1', '--hidden', '128', '--intermediate', '256',
    '--layers', '2', '--heads', '4', '--kv-heads', '4', '--head-dim', '32', '--vocab', '128256',
    '--max-pos', '512', '--tied', '--eos', '128001', '--seed', '23'], { encoding: 'utf8', timeout: 60_000 });
  if (made.status !== 0) {
    throw new Error(`${makeModel} exited with ${made.status ?? made.signal}: ${made.stderr}`);
  }
  for (const name of ['tokenizer.json', 'tokenizer_config.json']) {
    fs.copyFileSync(path.join(tokenizerDir, name), path.join(modelDir, name));
  }
}

// Starts the server and resolves with its port once it prints the listening line.
function startServer() {
  server = spawn(quorvel, ['serve', modelDir, '--port', '0', '--parallel', '1', '--api-key', apiKey], {
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  serverExit = new Promise((resolve) => server.on('exit', (code, signal) => resolve({ code, signal })));
  server.stdout.resume();
  server.stderr.setEncoding('utf8');
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => {
      reject(new Error(`quorvel serve printed no listening line within ${READY_TIMEOUT_MS / 1000} s; ` +
        `its standard error so far:\n${serverLog}`));
    }, READY_TIMEOUT_MS);
    server.stderr.on('data', (text) => {
      serverLog += text;
      const found = /^quorvel serve: listening on http:\/\/127\.0\.0\.1:(\d+)$/m.exec(serverLog);
      if (found) {
        clearTimeout(timer);
        resolve(Number(found[1]));
      }
    });
    server.on('error', (error) => {
      clearTimeout(timer);
      reject(new Error(`could not start ${quorvel}: ${error.message}`));
    });
    serverExit.then(({ code, signal }) => {
      clearTimeout(timer);
      reject(new Error(`quorvel serve ended before it listened (status ${code}, signal ${signal}); ` +
        `its standard error:\n${serverLog}`));
    });
  });
}

function withTimeout(promise, ms, what) {
  let timer;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`${what} took longer than ${ms / 1000} s`)), ms);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

before(async () => {
  makeTinyModel();
  const port = await startServer();
  assert.ok(port > 0 && port < 65536, `port ${port}`);
  baseURL = `http://127.0.0.1:${port}/v1`;
  // No retries: a request the server fails must fail the test, not be sent again.
  client = new OpenAI({ baseURL, apiKey, maxRetries: 0, timeout: REQUEST_TIMEOUT_MS });
  console.log(`# quorvel serve listens on port ${port}`);
});

after(async () => {
  if (server && server.exitCode === null && server.signalCode === null) {
    server.kill('SIGKILL');
    await serverExit;
  }
  if (anyFailure) console.log(`# quorvel serve's standard error:\n${serverLog.replace(/^/gm, '#   ')}`);
  fs.rmSync(workDir, { recursive: true, force: true });
});

const request = {
  model: MODEL_NAME,
  messages: [
    { role: 'system', content: 'You are a terse assistant.' },
    { role: 'user', content: 'Name three colours.' },
  ],
  temperature: 0,
  max_tokens: 8,
};
let whole = null;   // the non-streamed chat completion, which the streamed one must match

function checkUsage(usage, what) {
  assert.ok(usage, `${what} has usage`);
  assert.ok(Number.isInteger(usage.prompt_tokens) && usage.prompt_tokens > 0, `${what} prompt_tokens ${usage.prompt_tokens}`);
  assert.ok(Number.isInteger(usage.completion_tokens) && usage.completion_tokens >= 1 &&
    usage.completion_tokens <= request.max_tokens, `${what} completion_tokens ${usage.completion_tokens}`);
  assert.equal(usage.total_tokens, usage.prompt_tokens + usage.completion_tokens, `${what} total_tokens`);
  const cached = usage.prompt_tokens_details?.cached_tokens;
  assert.ok(Number.isInteger(cached) && cached >= 0 && cached <= usage.prompt_tokens,
    `${what} prompt_tokens_details.cached_tokens ${cached}`);
}

function checkFinish(finishReason, usage, what) {
  assert.ok(finishReason === 'stop' || finishReason === 'length', `${what} finish_reason ${finishReason}`);
  // A limit reached means exactly max_tokens were generated.
  if (finishReason === 'length') assert.equal(usage.completion_tokens, request.max_tokens, `${what} stopped at its limit`);
}

check('a chat completion, temperature 0 and max_tokens 8', async () => {
  const completion = await client.chat.completions.create(request);
  assert.equal(completion.object, 'chat.completion');
  assert.equal(typeof completion.id, 'string');
  assert.ok(completion.id.length > 0, 'id is not empty');
  assert.ok(Number.isInteger(completion.created) && Math.abs(completion.created - Date.now() / 1000) < 600,
    `created ${completion.created} is a time in seconds near now`);
  assert.equal(completion.model, MODEL_NAME);
  assert.equal(completion.choices.length, 1);
  const [choice] = completion.choices;
  assert.equal(choice.index, 0);
  assert.equal(choice.message.role, 'assistant');
  assert.equal(typeof choice.message.content, 'string');
  checkUsage(completion.usage, 'the completion');
  checkFinish(choice.finish_reason, completion.usage, 'the completion');
  // The server's first request finds nothing cached.
  assert.equal(completion.usage.prompt_tokens_details.cached_tokens, 0, 'cached_tokens of the first request');
  whole = completion;
  console.log(`# chat completion: ${completion.usage.completion_tokens} tokens, finish_reason ` +
    `${choice.finish_reason}, content ${JSON.stringify(choice.message.content)}`);
});

check('the same request streamed gives the same text in deltas, then its usage', async () => {
  assert.ok(whole, 'the non-streamed completion succeeded');
  const stream = await client.chat.completions.create({ ...request, stream: true, stream_options: { include_usage: true } });
  const chunks = [];
  for await (const chunk of stream) chunks.push(chunk);
  assert.ok(chunks.length >= 2, `${chunks.length} chunks`);
  const ids = new Set(chunks.map((chunk) => chunk.id));
  assert.equal(ids.size, 1, 'every chunk carries the same id');
  for (const chunk of chunks) {
    assert.equal(chunk.object, 'chat.completion.chunk');
    assert.equal(chunk.model, MODEL_NAME);
    assert.ok(Number.isInteger(chunk.created), 'created');
  }
  // With include_usage the last chunk has no choices and the usage of the whole answer.
  const last = chunks.at(-1);
  assert.deepEqual(last.choices, [], 'the usage chunk has no choices');
  checkUsage(last.usage, 'the stream');
  const withChoices = chunks.slice(0, -1);
  for (const chunk of withChoices) {
    assert.equal(chunk.choices.length, 1);
    assert.equal(chunk.choices[0].index, 0);
    assert.ok(chunk.usage == null, 'only the last chunk carries usage');
  }
  assert.equal(withChoices[0].choices[0].delta.role, 'assistant', 'the first chunk names the role');
  const finishes = withChoices.map((chunk) => chunk.choices[0].finish_reason).filter((reason) => reason != null);
  assert.deepEqual(finishes, [whole.choices[0].finish_reason], 'one chunk ends the choice, for the same reason');
  assert.ok(withChoices.at(-1).choices[0].finish_reason != null, 'the ending chunk is the last with choices');
  const text = withChoices.map((chunk) => chunk.choices[0].delta.content ?? '').join('');
  assert.equal(text, whole.choices[0].message.content, 'the deltas add up to the non-streamed content');
  assert.equal(last.usage.completion_tokens, whole.usage.completion_tokens);
  assert.equal(last.usage.prompt_tokens, whole.usage.prompt_tokens);
  // One slot served the same prompt before, so it starts from what that left cached.
  assert.ok(last.usage.prompt_tokens_details.cached_tokens > 0,
    `the repeated prompt found ${last.usage.prompt_tokens_details.cached_tokens} of ${last.usage.prompt_tokens} tokens cached`);
  console.log(`# stream: ${last.usage.prompt_tokens_details.cached_tokens} of ${last.usage.prompt_tokens} prompt tokens cached, ` +
    `${chunks.length} chunks, deltas ${JSON.stringify(withChoices.map((c) => c.choices[0].delta.content ?? ''))}`);
});

check('a streamed answer is server-sent events ending in [DONE]', async () => {
  // The client stops reading at [DONE] without telling whether it came, so read the body as sent.
  const response = await client.chat.completions.create({ ...request, stream: true }).asResponse();
  assert.equal(response.status, 200);
  assert.match(response.headers.get('content-type') ?? '', /^text\/event-stream/);
  const body = await withTimeout(response.text(), REQUEST_TIMEOUT_MS, 'reading the stream');
  assert.ok(body.endsWith('data: [DONE]\n\n'), `the body ends with data: [DONE]: ${JSON.stringify(body.slice(-80))}`);
  const events = body.split('\n\n').filter((event) => event !== '');
  assert.equal(events.at(-1), 'data: [DONE]');
  assert.equal(events.filter((event) => event === 'data: [DONE]').length, 1, 'one [DONE]');
  const chunks = events.slice(0, -1).map((event) => {
    assert.ok(event.startsWith('data: '), `an event is a data line: ${JSON.stringify(event)}`);
    return JSON.parse(event.slice('data: '.length));
  });
  // Without include_usage no chunk is the usage chunk.
  assert.ok(chunks.every((chunk) => chunk.choices.length === 1), 'every chunk has its choice');
  const text = chunks.map((chunk) => chunk.choices[0].delta.content ?? '').join('');
  assert.equal(text, whole.choices[0].message.content);
  console.log(`# raw stream: ${events.length} events, the last data: [DONE]`);
});

check('a completion of plain text', async () => {
  const completion = await client.completions.create({ model: MODEL_NAME, prompt: 'Once upon a time',
    temperature: 0, max_tokens: 8 });
  assert.equal(completion.object, 'text_completion');
  assert.equal(completion.model, MODEL_NAME);
  assert.equal(completion.choices.length, 1);
  assert.equal(typeof completion.choices[0].text, 'string');
  checkUsage(completion.usage, 'the text completion');
  checkFinish(completion.choices[0].finish_reason, completion.usage, 'the text completion');
  console.log(`# text completion: ${JSON.stringify(completion.choices[0].text)}`);
});

check('the model list names the one model served', async () => {
  const page = await client.models.list();
  assert.equal(page.data.length, 1, JSON.stringify(page.data));
  assert.equal(page.data[0].id, MODEL_NAME);
  assert.equal(page.data[0].object, 'model');
  console.log(`# models: ${page.data.map((model) => model.id).join(', ')}`);
});

check('a wrong API key is refused with 401, which the client raises as AuthenticationError', async () => {
  const stranger = new OpenAI({ baseURL, apiKey: `${apiKey}x`, maxRetries: 0, timeout: REQUEST_TIMEOUT_MS });
  for (const attempt of [() => stranger.chat.completions.create(request), () => stranger.models.list()]) {
    await assert.rejects(attempt(), (error) => {
      assert.ok(error instanceof AuthenticationError, `${error?.constructor?.name}: ${error?.message}`);
      assert.equal(error.status, 401);
      assert.equal(typeof error.error?.message, 'string', 'the body says why');
      return true;
    });
  }
  // No key at all is refused the same way.
  const bare = await fetch(`${baseURL}/models`);
  assert.equal(bare.status, 401);
  const body = await bare.json();
  assert.equal(typeof body.error?.message, 'string');
  assert.equal(typeof body.error?.type, 'string');
  console.log('# a wrong key and no key: 401');
});

check('a request without messages is a BadRequestError (400)', async () => {
  await assert.rejects(client.chat.completions.create({ model: MODEL_NAME, max_tokens: 8 }), (error) => {
    assert.ok(error instanceof BadRequestError, `${error?.constructor?.name}: ${error?.message}`);
    assert.equal(error.status, 400);
    assert.equal(typeof error.error?.message, 'string');
    return true;
  });
  // The server still answers afterwards.
  const again = await client.chat.completions.create(request);
  assert.equal(again.choices[0].message.content, whole.choices[0].message.content);
});

check('SIGTERM ends the server with status 0', async () => {
  server.kill('SIGTERM');
  const { code, signal } = await withTimeout(serverExit, EXIT_TIMEOUT_MS, 'quorvel serve ending after SIGTERM');
  assert.equal(signal, null, `ended by signal ${signal}`);
  assert.equal(code, 0);
  console.log('# SIGTERM: status 0');
});
