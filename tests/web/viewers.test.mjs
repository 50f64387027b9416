// Opens cube faces and a tile pyramid written by tessara-render in Pannellum,
// Marzipano and Photo Sphere Viewer (Debian's chromium through puppeteer-core),
// each through the configuration file the renderer wrote beside them, and
// compares six views of each, and two zoomed ones that need the pyramid's
// higher levels, with the same views computed from the equirect JPEG of the
// same run. The pyramid has WebP tiles of a size that is no power of two. With
// every face and tile request held back, each viewer must still show the front
// view from the preview it names. A copy of each faces configuration with l
// and r swapped must fail the same comparison. krpano (closed source) is
// checked against its documented XML structure instead.
// Usage: node viewers.test.mjs <folder of tessara-render>
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const modules = path.join(here, 'node_modules');
const chromium = process.env.CHROMIUM || '/usr/bin/chromium';
if (!fs.existsSync(path.join(modules, 'puppeteer-core')) || !fs.existsSync(chromium)) {
  console.error('SKIPPED: chromium or tests/web/node_modules missing (scripts/install-deps.sh installs them)');
  process.exit(77);
}
const { default: puppeteer } = await import('puppeteer-core');
const { default: jpeg } = await import('jpeg-js');
const { PNG } = await import('pngjs');

const bin = path.resolve(process.argv[2] || path.join(here, '../../build/bin'));
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'tessara-web-'));
let failures = 0;
const check = (ok, what) => { if (!ok) { failures++; console.error('FAIL ' + what); } };

// ---- A panorama whose colour says where it looks: smooth in every direction.
const W = 2000, H = 1000;
function scene(x, y, z) {
  const lon = Math.atan2(x, z), lat = Math.atan2(y, Math.hypot(x, z));
  const ring = 0.5 + 0.5 * Math.cos(6 * lon) * Math.cos(2 * lat);
  return [0.55 + 0.45 * x, 0.55 + 0.45 * y, 0.3 + 0.5 * ring * (0.6 + 0.4 * z)];
}
function writeRadiance(file) {
  const head = `#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y ${H} +X ${W}\n`;
  const px = Buffer.alloc(W * H * 4);
  for (let j = 0; j < H; j++) {
    const lat = ((H - 1) / 2 - j) * Math.PI / H;
    for (let i = 0; i < W; i++) {
      const lon = (i - (W - 1) / 2) * 2 * Math.PI / W;
      const c = scene(Math.sin(lon) * Math.cos(lat), Math.sin(lat), Math.cos(lon) * Math.cos(lat));
      const m = Math.max(...c), e = Math.ceil(Math.log2(m));
      const o = 4 * (j * W + i);
      for (let k = 0; k < 3; k++) px[o + k] = Math.floor(c[k] / 2 ** e * 256 * 0.9999);
      px[o + 3] = e + 128;
    }
  }
  fs.writeFileSync(file, Buffer.concat([Buffer.from(head), px]));
}
writeRadiance(path.join(work, 'pano.hdr'));
function render(...args) {
  const r = spawnSync(path.join(bin, 'tessara-render'), [path.join(work, 'pano.hdr'), ...args], { encoding: 'utf8' });
  if (r.status !== 0) throw new Error('tessara-render failed: ' + r.stderr);
}
fs.mkdirSync(path.join(work, 'faces'));
render('--output-prefix', path.join(work, 'faces/pano'), '--er-jpg', '--cf-jpg', '--cf-width', '1024');
// Faces of 1500 in tiles of 375: levels of 375, 750 and 1500.
render('--output-prefix', path.join(work, 'tiles') + '/', '--cf-jpg', '--cf-width', '1500', '--tile-format', 'webp');

// ---- The equirect JPEG and its thumbnail say they are whole 360 x 180 panoramas.
for (const [file, w, h] of [['faces/pano.jpg', W, H], ['faces/pano thumbnail.jpg', 1000, 500]]) {
  const r = spawnSync('exiftool', ['-j', '-XMP-GPano:all', path.join(work, file)], { encoding: 'utf8' });
  const tags = r.status === 0 ? JSON.parse(r.stdout)[0] : {};
  const want = { ProjectionType: 'equirectangular', UsePanoramaViewer: true, CroppedAreaImageWidthPixels: w,
    CroppedAreaImageHeightPixels: h, FullPanoWidthPixels: w, FullPanoHeightPixels: h, CroppedAreaLeftPixels: 0,
    CroppedAreaTopPixels: 0, PosePitchDegrees: 0, PoseRollDegrees: 0 };
  for (const [k, v] of Object.entries(want)) check(tags[k] === v, `${file}: GPano ${k} is ${tags[k]}, not ${v}`);
  check(!('PoseHeadingDegrees' in tags), `${file}: no heading`);
}

// ---- Reference views from the equirect JPEG (bilinear, pixel centres as the renderer's).
const equi = jpeg.decode(fs.readFileSync(path.join(work, 'faces/pano.jpg')), { useTArray: true });
function sample(d) {
  const lon = Math.atan2(d[0], d[2]), lat = Math.atan2(d[1], Math.hypot(d[0], d[2]));
  const x = lon * equi.width / (2 * Math.PI) + (equi.width - 1) / 2;
  const y = Math.min(Math.max((equi.height - 1) / 2 - lat * equi.height / Math.PI, 0), equi.height - 1);
  const x0 = Math.floor(x), y0 = Math.floor(y), fx = x - x0, fy = y - y0;
  const at = (xx, yy, k) => equi.data[4 * (Math.min(yy, equi.height - 1) * equi.width + ((xx % equi.width) + equi.width) % equi.width) + k];
  return [0, 1, 2].map((k) => (at(x0, y0, k) * (1 - fx) + at(x0 + 1, y0, k) * fx) * (1 - fy) +
                              (at(x0, y0 + 1, k) * (1 - fx) + at(x0 + 1, y0 + 1, k) * fx) * fy);
}
// yaw to the right and pitch up in radians, vertical field of view in degrees; square view of n pixels.
function referenceView(yaw, pitch, vfov, n) {
  const f = [Math.sin(yaw) * Math.cos(pitch), Math.sin(pitch), Math.cos(yaw) * Math.cos(pitch)];
  const r = [Math.cos(yaw), 0, -Math.sin(yaw)];
  const u = [-Math.sin(yaw) * Math.sin(pitch), Math.cos(pitch), -Math.cos(yaw) * Math.sin(pitch)];
  const t = Math.tan(vfov * Math.PI / 360), out = new Float64Array(n * n * 3);
  for (let j = 0; j < n; j++)
    for (let i = 0; i < n; i++) {
      const a = (2 * (i + 0.5) / n - 1) * t, b = -(2 * (j + 0.5) / n - 1) * t;
      out.set(sample([0, 1, 2].map((k) => f[k] + a * r[k] + b * u[k])), 3 * (j * n + i));
    }
  return out;
}
// Mean absolute difference (8-bit levels) and PSNR over the view, leaving out a
// border of 4 pixels where viewers antialias the canvas edge.
function compare(png, ref, n) {
  let sum = 0, sq = 0, count = 0;
  for (let j = 4; j < n - 4; j++)
    for (let i = 4; i < n - 4; i++)
      for (let k = 0; k < 3; k++) {
        const d = png.data[4 * (j * n + i) + k] - ref[3 * (j * n + i) + k];
        sum += Math.abs(d); sq += d * d; count++;
      }
  return { mean: sum / count, psnr: 10 * Math.log10(255 * 255 / (sq / count)) };
}

// ---- Pages: each viewer loads the renderer's file unmodified, from the folder it was written in.
const N = 256;
// yaw, pitch and field of view in degrees; at 60 and 20 degrees the viewers'
// level choice for this window asks for the pyramid's second and third level.
const views = { front: [0, 0, 90], right: [90, 0, 90], back: [180, 0, 90], left: [-90, 0, 90], up: [0, 90, 90],
  down: [0, -90, 90] };
const zoomed = { ...views, zoom60: [20, 10, 60], zoom20: [-30, -20, 20] };
const style = `<style>html,body{margin:0;background:#000}#v{width:${N}px;height:${N}px}
.pnlm-controls-container,.pnlm-load-box,.pnlm-about-msg,.pnlm-compass,.pnlm-panorama-info{display:none!important}</style>`;
const pages = {
  pannellum: (cfg) => `<link rel="stylesheet" href="/node_modules/pannellum/build/pannellum.css">${style}
<div id="v"></div><script src="/node_modules/pannellum/build/pannellum.js"></script><script>
fetch('${cfg}').then((r) => r.json()).then((config) => {
  const v = pannellum.viewer('v', config);
  // A pyramid loads at once, before this line (its tiles come later).
  const ready = () => { window.look = (yaw, pitch, fov) => { v.setHfov(fov, false); v.setYaw(yaw, false); v.setPitch(pitch, false);
    return { yaw: v.getYaw() * Math.PI / 180, pitch: v.getPitch() * Math.PI / 180, vfov: v.getHfov() }; }; };
  if (v.isLoaded()) ready(); else v.on('load', ready);
});</script>`,
  marzipano: (cfg) => `${style}<div id="v"></div><script src="/node_modules/marzipano/dist/marzipano.js"></script>
<script type="module">
import createScene from '${cfg}';
const scene = createScene(Marzipano, new Marzipano.Viewer(document.getElementById('v')));
scene.switchTo();
window.look = (yaw, pitch, fov) => { const v = scene.view(); v.setParameters({ yaw: yaw * Math.PI / 180, pitch: pitch * Math.PI / 180, fov: fov * Math.PI / 180 });
  return { yaw: v.yaw(), pitch: -v.pitch(), vfov: v.fov() * 180 / Math.PI }; };
</script>`,
  psv: (cfg) => `<link rel="stylesheet" href="/node_modules/@photo-sphere-viewer/core/index.css">${style}<div id="v"></div>
<script type="importmap">{"imports":{"three":"/node_modules/three/build/three.module.js",
"@photo-sphere-viewer/core":"/node_modules/@photo-sphere-viewer/core/index.module.js",
"@photo-sphere-viewer/cubemap-adapter":"/node_modules/@photo-sphere-viewer/cubemap-adapter/index.module.js"}}</script>
<script type="module">
import { Viewer } from '@photo-sphere-viewer/core';
import { CubemapAdapter } from '@photo-sphere-viewer/cubemap-adapter';
import { CubemapTilesAdapter } from '/node_modules/@photo-sphere-viewer/cubemap-tiles-adapter/index.module.js';
import panorama from '${cfg}';
const v = new Viewer({ container: 'v', adapter: panorama.levels ? CubemapTilesAdapter : CubemapAdapter, panorama,
  navbar: false, loadingTxt: '', minFov: 20, maxFov: 90, defaultZoomLvl: 0, mousewheel: false });
v.addEventListener('ready', () => { window.look = (yaw, pitch, fov) => { v.rotate({ yaw: yaw * Math.PI / 180, pitch: pitch * Math.PI / 180 }); v.zoom((90 - fov) / 70 * 100);
  const p = v.getPosition(); return { yaw: p.yaw, pitch: p.pitch, vfov: v.state.vFov }; }; }, { once: true });
</script>`,
};

const types = { '.html': 'text/html', '.js': 'text/javascript', '.mjs': 'text/javascript', '.json': 'application/json',
  '.css': 'text/css', '.jpg': 'image/jpeg', '.webp': 'image/webp', '.xml': 'application/xml' };
const server = http.createServer((req, res) => {
  const url = new URL(req.url, 'http://x');
  const page = url.pathname.match(/^\/(.*\/)?__(\w+)\.html$/);
  if (page) {
    res.writeHead(200, { 'content-type': 'text/html' });
    return res.end('<!DOCTYPE html><meta charset="utf-8">' + pages[page[2]](url.searchParams.get('config')));
  }
  const file = url.pathname.startsWith('/node_modules/') ? path.join(here, decodeURIComponent(url.pathname))
    : path.join(work, decodeURIComponent(url.pathname));
  fs.readFile(file, (err, data) => {
    if (err) { res.writeHead(404); return res.end(); }
    res.writeHead(200, { 'content-type': types[path.extname(file)] || 'application/octet-stream' });
    res.end(data);
  });
});
await new Promise((ok) => server.listen(0, '127.0.0.1', ok));
const origin = `http://127.0.0.1:${server.address().port}`;

const browser = await puppeteer.launch({
  executablePath: chromium, headless: true,
  args: ['--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist',
    '--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-component-update', '--disable-sync',
    `--user-data-dir=${path.join(work, 'chromium')}`],
});

// Images the viewers ask for, by folder, and whether they are held back.
// Pannellum's pyramid has the preview faces as its first level.
const isPreview = (url) => /preview[^/]*\.jpg$|\/pannellum\/1_[a-z]_0_0\.webp$/.test(url);
const isImage = (url) => /\/(faces|tiles)\/.*\.(jpg|webp)$/.test(url);

// Shows `folder/config` in `viewer`. Until the first view is taken every face
// and tile request is held back (unanswered, as by a slow server), so that
// only the preview can show it; then they go on and each of `views` is
// compared. Returns the comparisons and the images requested.
async function measure(viewer, folder, config, views) {
  const page = await browser.newPage();
  await page.setViewport({ width: N, height: N, deviceScaleFactor: 1 });
  page.on('pageerror', (e) => console.error(`${viewer} ${config}: ${e.message}`));
  const requested = [];
  let held = [];
  await page.setRequestInterception(true);
  page.on('request', (r) => {
    const url = new URL(r.url()).pathname;
    if (isImage(url)) requested.push(url);
    if (held && isImage(url) && !isPreview(url)) held.push(r); else r.continue();
  });
  await page.goto(`${origin}/${folder}/__${viewer}.html?config=${encodeURIComponent('./' + config)}`);
  for (let i = 0; i < 100 && !requested.some(isPreview); i++) await new Promise((ok) => setTimeout(ok, 100));
  const preview = compare(await steadyShot(page), referenceView(0, 0, 90, N), N);
  const waiting = held.splice(0);
  held = null;
  waiting.forEach((r) => r.continue());
  await page.waitForFunction('window.look', { timeout: 30000 });
  const results = {};
  for (const [name, [yaw, pitch, fov]] of Object.entries(views)) {
    const seen = await page.evaluate(`look(${yaw}, ${pitch}, ${fov})`);
    results[name] = compare(await steadyShot(page), referenceView(seen.yaw, seen.pitch, seen.vfov, N), N);
  }
  await page.close();
  return { results, preview, requested };
}

// Tiles arrive asynchronously: waits until two screenshots a moment apart agree.
async function steadyShot(page) {
  let shot = null;
  for (let i = 0; i < 40; i++) {
    await new Promise((ok) => setTimeout(ok, 250));
    const next = await page.screenshot({ clip: { x: 0, y: 0, width: N, height: N } });
    if (shot && Buffer.compare(shot, next) === 0) break;
    shot = next;
  }
  return PNG.sync.read(shot);
}

const report = (label, r) => console.log(label.padEnd(34) + Object.entries(r)
  .map(([k, v]) => `${k} ${v.mean.toFixed(2)}/${v.psnr.toFixed(1)}dB`).join('  '));
// Bounds: faces and tiles are JPEGs of quality 90 resampled once more by the
// viewer, the reference is bilinear from a JPEG of quality 90; on this smooth
// scene that costs about one to three levels. A wrong face is off by tens.
const good = (v) => v.mean < 6 && v.psnr > 28;
// The preview alone (faces of 187 or 256 pixels shown at about 256) comes
// within the same bounds on this smooth scene, with a little room.
const goodPreview = (v) => v.mean < 8 && v.psnr > 25;
for (const [viewer, ext] of [['pannellum', 'json'], ['marzipano', 'js'], ['psv', 'js']]) {
  for (const [folder, config] of [['faces', `pano_${viewer}.${ext}`], ['tiles', `${viewer}.${ext}`]]) {
    const { results: r, preview, requested } = await measure(viewer, folder, config, folder === 'tiles' ? zoomed : views);
    report(`${viewer} ${folder}`, { ...r, preview });
    for (const [k, v] of Object.entries(r)) check(good(v), `${viewer} ${folder} ${k}: mean ${v.mean}, PSNR ${v.psnr}`);
    check(requested.some(isPreview) && goodPreview(preview), `${viewer} ${folder}: the preview shows the front view`);
    if (folder === 'tiles') {
      // Every level of the pyramid was asked for (Pannellum through its links, levels from 2).
      const levels = new Set(requested.filter((u) => !isPreview(u))
        .map((u) => +u.match(/(\d+)_[a-z]_\d+_\d+\.webp$/)[1] - (viewer === 'pannellum' ? 2 : 0)));
      check([0, 1, 2].every((l) => levels.has(l)), `${viewer}: tiles of every level requested (${[...levels]})`);
    }
  }
  // The same faces configuration with l and r exchanged must be caught.
  const text = fs.readFileSync(path.join(work, 'faces', `pano_${viewer}.${ext}`), 'utf8');
  const wrong = swapText(text, viewer);
  fs.writeFileSync(path.join(work, 'faces', `wrong_${viewer}.${ext}`), wrong);
  check(wrong !== text, `${viewer}: the swapped configuration differs`);
  const { results: r } = await measure(viewer, 'faces', `wrong_${viewer}.${ext}`, views);
  report(`${viewer} faces, l and r swapped`, r);
  check(!good(r.left) && !good(r.right), `${viewer}: swapped l and r faces not detected`);
}
function swapText(text, viewer) {
  if (viewer === 'marzipano') return text.replace("face + '.jpg'", "({ l: 'r', r: 'l' }[face] || face) + '.jpg'");
  if (viewer === 'psv') return text.replace("left: 'l'", "left: 'r'").replace("right: 'r'", "right: 'l'");
  return text.replace('pano_l.jpg', '@').replace('pano_r.jpg', 'pano_l.jpg').replace('@', 'pano_r.jpg');
}

// ---- index.html beside the pyramid shows it (Marzipano from the local copy).
{
  const page = await browser.newPage();
  await page.setViewport({ width: N, height: N, deviceScaleFactor: 1 });
  await page.goto(`${origin}/tiles/index.html?marzipano=/node_modules/marzipano/dist/marzipano.js`);
  await page.waitForFunction('window.scene', { timeout: 30000 });
  await new Promise((ok) => setTimeout(ok, 2000));
  const view = await page.evaluate('({ yaw: scene.view().yaw(), pitch: -scene.view().pitch(), vfov: scene.view().fov() * 180 / Math.PI })');
  const r = compare(PNG.sync.read(await page.screenshot()), referenceView(view.yaw, view.pitch, view.vfov, N), N);
  console.log(`index.html front view: mean ${r.mean.toFixed(2)}, PSNR ${r.psnr.toFixed(1)} dB`);
  check(good(r), 'index.html does not show the pyramid');
}

// ---- krpano: the documented structure, and every tile it names exists at its size.
for (const [folder, file] of [['tiles', 'krpano.xml'], ['faces', 'pano_krpano.xml']]) {
  const page = await browser.newPage();
  const xml = fs.readFileSync(path.join(work, folder, file), 'utf8');
  const doc = await page.evaluate((x) => {
    const d = new DOMParser().parseFromString(x, 'application/xml');
    if (d.querySelector('parsererror')) return { error: 'not well-formed' };
    const image = d.documentElement.querySelector(':scope > image');
    return { root: d.documentElement.nodeName, image: image && Object.fromEntries([...image.attributes].map((a) => [a.name, a.value])),
      levels: [...d.querySelectorAll('image > level')].map((l) => ({ w: +l.getAttribute('tiledimagewidth'),
        h: +l.getAttribute('tiledimageheight'), url: l.querySelector(':scope > cube')?.getAttribute('url') })),
      cube: d.querySelector('image > cube')?.getAttribute('url'),
      preview: Object.fromEntries([...(d.querySelector(':scope > preview')?.attributes || [])].map((a) => [a.name, a.value])) };
  }, xml);
  await page.close();
  check(!doc.error && doc.root === 'krpano' && doc.image, `${file}: a <krpano> root with one <image>`);
  // A JPEG's size from jpeg-js; a lossy WebP's from its VP8 frame header.
  const size = (f) => {
    const b = fs.readFileSync(f);
    if (b.toString('latin1', 0, 4) === 'RIFF' && b.toString('latin1', 12, 16) === 'VP8 ')
      return [b.readUInt16LE(26) & 0x3fff, b.readUInt16LE(28) & 0x3fff];
    const j = jpeg.decode(b, { useTArray: true });
    return [j.width, j.height];
  };
  // The preview: a strip of six square faces in the order it states, 1024 and
  // 1500 halved to at most 256.
  const previewFace = { faces: 256, tiles: 187 }[folder];
  check(doc.preview?.type === 'CUBESTRIP' && doc.preview.striporder === 'BDFLRU' &&
    size(path.join(work, folder, doc.preview.url)).join() === [6 * previewFace, previewFace].join(), `${file}: <preview> of a cube strip`);
  const letters = ['l', 'f', 'r', 'b', 'u', 'd'];  // krpano's default cubelabels
  if (folder === 'faces') {
    check(/%s/.test(doc.cube), `${file}: a cube url with %s`);
    for (const s of letters) check(fs.existsSync(path.join(work, folder, doc.cube.replace('%s', s))), `${file}: face ${s}`);
    continue;
  }
  const tile = +doc.image.tilesize;
  check(doc.image.type === 'CUBE' && doc.image.multires === 'true' && doc.image.baseindex === '0' && tile > 0,
    `${file}: <image type="CUBE" multires="true" baseindex="0" tilesize>`);
  check(doc.levels.length > 1 && doc.levels.every((l, i) => l.w === l.h && (i === 0 || l.w < doc.levels[i - 1].w)),
    `${file}: square levels from the largest down`);
  for (const l of doc.levels) {
    const n = Math.ceil(l.w / tile), pad = (v) => String(v).padStart(2, '0');
    for (const s of letters)
      for (let v = 0; v < n; v++)
        for (let h = 0; h < n; h++) {
          const f = path.join(work, folder, l.url.replace('%s', s).replace('%0v', pad(v)).replace('%0h', pad(h)));
          check(fs.existsSync(f) && size(f).join() === [tile, tile].join(), `${file}: tile ${f}`);
        }
  }
}

await browser.close();
server.close();
if (!failures) fs.rmSync(work, { recursive: true, force: true });
console.log(failures ? `${failures} failures (files kept in ${work})` : 'all viewer checks passed');
process.exit(failures ? 1 : 0);
