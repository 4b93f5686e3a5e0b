// RNNoise as a peer: feeds raw audio files through rnnoise_process_frame in 10 ms frames.
//
//   node denoise.mjs LIST [--flush-ms MS]
//
// LIST holds one "INPUT<TAB>OUTPUT" pair per line; both are raw little-endian float32 mono at
// 48 kHz in -1 ... 1 (RNNoise's only rate; the caller resamples other rates). Every file gets a
// fresh denoiser state. As sonel-eval-run does, the input is zero-padded to whole frames and
// followed by MS (default 100) of zeros, and the output is that long.
import { readFileSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';

const RATE_HZ = 48000;
const FRAME = 480;
// RNNoise works on 16-bit sample values held in floats.
const PCM_SCALE = 32768;

const args = process.argv.slice(2);
let flushMs = 100;
const flushAt = args.indexOf('--flush-ms');
if (flushAt >= 0) {
  flushMs = Number(args[flushAt + 1]);
  args.splice(flushAt, 2);
}
if (args.length !== 1 || !(flushMs >= 0)) {
  console.error('usage: node denoise.mjs LIST [--flush-ms MS]');
  process.exit(2);
}

// The package ships an ES module (with the WebAssembly inlined) in a ".js" file without declaring
// its type; Node.js before 20.19 would read it as CommonJS, so it is imported from its text.
const modulePath = createRequire(import.meta.url).resolve('@jitsi/rnnoise-wasm/dist/rnnoise-sync.js');
const source = readFileSync(modulePath, 'utf8');
const { default: createRNNWasmModuleSync } =
  await import('data:text/javascript;base64,' + Buffer.from(source).toString('base64'));
const wasm = await createRNNWasmModuleSync();
const inPtr = wasm._malloc(FRAME * 4);
const outPtr = wasm._malloc(FRAME * 4);

function denoise(signal) {
  const frames = Math.ceil((signal.length + Math.round(flushMs * RATE_HZ / 1000)) / FRAME);
  const output = new Float32Array(frames * FRAME);
  const state = wasm._rnnoise_create(0);
  for (let f = 0; f < frames; ++f) {
    // The heap view is fetched per frame: it is replaced whenever the module's memory grows.
    const heap = wasm.HEAPF32;
    for (let i = 0; i < FRAME; ++i) {
      const n = f * FRAME + i;
      heap[inPtr / 4 + i] = n < signal.length ? signal[n] * PCM_SCALE : 0;
    }
    wasm._rnnoise_process_frame(state, outPtr, inPtr);
    for (let i = 0; i < FRAME; ++i) output[f * FRAME + i] = wasm.HEAPF32[outPtr / 4 + i] / PCM_SCALE;
  }
  wasm._rnnoise_destroy(state);
  return output;
}

for (const line of readFileSync(args[0], 'utf8').split('\n')) {
  if (!line) continue;
  const [input, output] = line.split('\t');
  const bytes = readFileSync(input);
  const signal = new Float32Array(bytes.buffer, bytes.byteOffset, bytes.byteLength / 4);
  writeFileSync(output, Buffer.from(denoise(signal).buffer));
}
