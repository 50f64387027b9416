// Writes a 2:1 equirect Radiance panorama of the given width with the fine
// grain of a photograph (a smooth scene plus seeded per-pixel noise of about
// 12 levels in 8 bits), for the equirect benchmark.
// Usage: node make-equirect.mjs <width> <file.hdr>
import fs from 'node:fs';

const W = +process.argv[2], H = W / 2, file = process.argv[3];
const fd = fs.openSync(file, 'w');
fs.writeSync(fd, `#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y ${H} +X ${W}\n`);
const row = Buffer.alloc(W * 4);
let seed = 12345;
for (let j = 0; j < H; j++) {
  const lat = ((H - 1) / 2 - j) * Math.PI / H, cl = Math.cos(lat), sl = Math.sin(lat);
  for (let i = 0; i < W; i++) {
    const lon = (i - (W - 1) / 2) * 2 * Math.PI / W;
    seed = (seed * 1103515245 + 12345) >>> 0;
    const grain = ((seed >>> 16) & 255) / 255 - 0.5;
    const c = [0.5 + 0.4 * Math.sin(lon) * cl + 0.1 * grain, 0.5 + 0.4 * sl + 0.1 * grain,
      0.35 + 0.3 * Math.cos(6 * lon) * cl + 0.1 * grain];
    const m = Math.max(c[0], c[1], c[2]), e = Math.ceil(Math.log2(m));
    for (let k = 0; k < 3; k++) row[4 * i + k] = Math.floor(c[k] / 2 ** e * 256 * 0.9999);
    row[4 * i + 3] = e + 128;
  }
  fs.writeSync(fd, row);
}
fs.closeSync(fd);
