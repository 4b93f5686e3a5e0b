// RNNoise's voice activity probability as a peer in the voice-detection evaluation: the value
// rnnoise_process_frame returns for each 10 ms frame (the denoised audio is thrown away).
//
//   node vad.mjs LIST
//   node vad.mjs --time FILE [--passes N]
//
// LIST holds one "INPUT<TAB>OUTPUT" pair per line. INPUT is raw little-endian float32 mono at
// 48 kHz in -1 ... 1 (RNNoise's only rate; the caller resamples), zero-padded to whole frames;
// OUTPUT gets one float32 probability per 480-sample frame. Every file gets a fresh state.
//
// With --time, FILE is run once to warm up and then N times more (default 5); the line printed
// gives the process CPU time per frame of the quickest and of the median pass, in microseconds.
// That is the WebAssembly build's time, copies in and out of its heap included.
import { readFileSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';

const FRAME = 480;
// RNNoise works on 16-bit sample values held in floats.
const PCM_SCALE = 32768;

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

// As in denoise.mjs: the package's ES module sits in a ".js" file without a declared type, so it
// is imported from its text.
const modulePath = createRequire(import.meta.url).resolve('@jitsi/rnnoise-wasm/dist/rnnoise-sync.js');
const source = readFileSync(modulePath, 'utf8');
const { default: createRNNWasmModuleSync } =
  await import('data:text/javascript;base64,' + Buffer.from(source).toString('base64'));
const wasm = await createRNNWasmModuleSync();
const inPtr = wasm._malloc(FRAME * 4);
const outPtr = wasm._malloc(FRAME * 4);

function probabilities(signal) {
  const frames = Math.ceil(signal.length / FRAME);
  const out = new Float32Array(frames);
  const state = wasm._rnnoise_create(0);
  for (let f = 0; f < frames; ++f) {
    // The heap view is fetched per frame: it is replaced whenever the module's memory grows.
    const heap = wasm.HEAPF32;
    for (let i = 0; i < FRAME; ++i) {
      const n = f * FRAME + i;
      heap[inPtr / 4 + i] = n < signal.length ? signal[n] * PCM_SCALE : 0;
    }
    out[f] = wasm._rnnoise_process_frame(state, outPtr, inPtr);
  }
  wasm._rnnoise_destroy(state);
  return out;
}

function readRaw(path) {
  const bytes = readFileSync(path);
  return new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength));
}

if (timing) {
  const signal = readRaw(args[0]);
  const frames = Math.ceil(signal.length / FRAME);
  const perFrameUs = [];
  for (let pass = 0; pass <= passes; ++pass) {
    const start = process.cpuUsage();
    probabilities(signal);
    const used = process.cpuUsage(start);
    if (pass > 0) perFrameUs.push((used.user + used.system) / frames);
  }
  perFrameUs.sort((a, b) => a - b);
  console.log(`rnnoise ${perFrameUs[0]} ${perFrameUs[Math.floor(perFrameUs.length / 2)]} us/frame ` +
              `(${frames} frames, ${passes} passes)`);
} else {
  for (const line of readFileSync(args[0], 'utf8').split('\n')) {
    if (!line) continue;
    const [input, output] = line.split('\t');
    writeFileSync(output, Buffer.from(probabilities(readRaw(input)).buffer));
  }
}
