// Silero VAD (v5, the ONNX model that @ricky0123/vad-web ships) as a peer in the voice-detection
// evaluation, run by onnxruntime-node's CPU runtime.
//
//   node vad.mjs LIST
//   node vad.mjs --time FILE [--passes N]
//
// LIST holds one "INPUT<TAB>OUTPUT" pair per line. INPUT is raw little-endian float32 mono at
// 16 kHz in -1 ... 1; OUTPUT gets one float32 speech probability per 512-sample (32 ms) window,
// the input zero-padded to whole windows. Every file starts from a zero state and zero context.
//
// Each call sees the 64 samples before its window as well (576 in all), as vad-web and Silero's
// own wrapper feed it, so a window's look-behind is 36 ms and it looks at nothing after its own
// last sample.
//
// With --time, FILE is run once to warm up and then N times more (default 5); the line printed
// gives the process CPU time per 512-sample window of the quickest and of the median pass, and
// the same divided by 3.2, per 10 ms of audio, in microseconds. The runtime is held to one
// thread, as every other detector here runs on one.
import { readFileSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import * as ort from 'onnxruntime-node';

const RATE_HZ = 16000;
const WINDOW = 512;
const CONTEXT = 64;
const STATE_SIZE = 2 * 1 * 128;
const MODEL = fileURLToPath(new URL('node_modules/@ricky0123/vad-web/dist/silero_vad_v5.onnx', import.meta.url));

const args = process.argv.slice(2);
let passes = 5;
const passesAt = args.indexOf('--passes');
if (passesAt >= 0) {
  passes = Number(args[passesAt + 1]);
  args.splice(passesAt, 2);
}
const timing = args[0] === '--time';
if (timing) args.shift();
if (args.length !== 1 || !(passes >= 1)) {
  console.error('usage: node vad.mjs LIST\n       node vad.mjs --time FILE [--passes N]');
  process.exit(2);
}

const session = await ort.InferenceSession.create(MODEL, {
  intraOpNumThreads: 1,
  interOpNumThreads: 1,
  executionMode: 'sequential',
});
for (const [names, expected] of [[session.inputNames, ['input', 'state', 'sr']],
                                 [session.outputNames, ['output', 'stateN']]]) {
  if (expected.some((name) => !names.includes(name))) {
    console.error(`vad.mjs: the model's tensors are ${session.inputNames} -> ${session.outputNames}`);
    process.exit(1);
  }
}
const sampleRate = new ort.Tensor('int64', BigInt64Array.from([BigInt(RATE_HZ)]), []);

async function probabilities(signal) {
  const windows = Math.ceil(signal.length / WINDOW);
  const out = new Float32Array(windows);
  const input = new Float32Array(CONTEXT + WINDOW);
  let state = new ort.Tensor('float32', new Float32Array(STATE_SIZE), [2, 1, 128]);
  for (let w = 0; w < windows; ++w) {
    // The last CONTEXT samples of the previous call become this call's look-behind.
    input.copyWithin(0, WINDOW);
    for (let i = 0; i < WINDOW; ++i) {
      const n = w * WINDOW + i;
      input[CONTEXT + i] = n < signal.length ? signal[n] : 0;
    }
    const result = await session.run({
      input: new ort.Tensor('float32', input, [1, CONTEXT + WINDOW]),
      state,
      sr: sampleRate,
    });
    state = result.stateN;
    out[w] = result.output.data[0];
  }
  return out;
}

function readRaw(path) {
  const bytes = readFileSync(path);
  return new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength));
}

if (timing) {
  const signal = readRaw(args[0]);
  const windows = Math.ceil(signal.length / WINDOW);
  const perWindowUs = [];
  for (let pass = 0; pass <= passes; ++pass) {
    const start = process.cpuUsage();
    await probabilities(signal);
    const used = process.cpuUsage(start);
    if (pass > 0) perWindowUs.push((used.user + used.system) / windows);
  }
  perWindowUs.sort((a, b) => a - b);
  const quickest = perWindowUs[0];
  const median = perWindowUs[Math.floor(perWindowUs.length / 2)];
  const framesPerWindow = WINDOW / (RATE_HZ / 100);
  console.log(`silero ${quickest / framesPerWindow} ${median / framesPerWindow} us/frame ` +
              `(${quickest} ${median} us/window, ${windows} windows, ${passes} passes)`);
} else {
  for (const line of readFileSync(args[0], 'utf8').split('\n')) {
    if (!line) continue;
    const [input, output] = line.split('\t');
    writeFileSync(output, Buffer.from((await probabilities(readRaw(input))).buffer));
  }
}
