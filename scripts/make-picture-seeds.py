# Writes the PNG and TIFF seeds of the fuzzing corpus (fuzz/corpus/png, tiff) by hand,
# so that each layout the readers take is there byte for byte; run from fuzz/corpus.
# The LZW, tiled and big-endian TIFF variants are made from them with tiffcp:
#   tiffcp -c lzw tiff/rgb8-strips.tif tiff/rgb8-lzw.tif
#   tiffcp -t -w 16 -l 16 -c zip tiff/float-rgba.tif tiff/float-tiled.tif
#   tiffcp -B -c none tiff/rgb8-strips.tif tiff/rgb8-bigendian.tif
import zlib, struct
def chunk(t, d):
    return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d) & 0xffffffff)
def png(path, w, h, ctype, depth, pix, interlace=False, xmp=None):
    def rows(xs, ys):
        out = b''
        for y in ys:
            line = b'\0'
            for x in xs:
                for s in pix(x, y):
                    line += struct.pack('>H', s) if depth == 16 else bytes([s])
            out += line
        return out
    if interlace:
        raw = b''
        for (x0, y0, dx, dy) in [(0,0,8,8),(4,0,8,8),(0,4,4,8),(2,0,4,4),(0,2,2,4),(1,0,2,2),(0,1,1,2)]:
            xs = list(range(x0, w, dx)); ys = list(range(y0, h, dy))
            if xs and ys: raw += rows(xs, ys)
    else:
        raw = rows(range(w), range(h))
    data = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', w, h, depth, ctype, 0, 0, 1 if interlace else 0))
    if xmp: data += chunk(b'iTXt', b'XML:com.adobe.xmp\0\0\0\0\0' + xmp.encode())
    data += chunk(b'IDAT', zlib.compress(raw, 9)) + chunk(b'IEND', b'')
    open(path, 'wb').write(data)
png('png/rgb8-16x8.png', 16, 8, 2, 8, lambda x, y: (x * 15, y * 30, (x * y) % 256))
png('png/rgba16-interlaced.png', 16, 8, 6, 16, lambda x, y: (x * 4000, y * 8000, 30000 + x * y * 100, 65535), interlace=True)
xmp = ('<x:xmpmeta xmlns:x="adobe:ns:meta/"><rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#">'
       '<rdf:Description xmlns:GPano="http://ns.google.com/photos/1.0/panorama/" GPano:FullPanoWidthPixels="64" '
       'GPano:FullPanoHeightPixels="32" GPano:CroppedAreaLeftPixels="8" GPano:CroppedAreaTopPixels="4"/></rdf:RDF></x:xmpmeta>')
png('png/grey8-xmp.png', 16, 8, 0, 8, lambda x, y: ((x + y) * 11,), xmp=xmp)

def tiff(path, w, h, spp, bits, fmt, pix):
    # little-endian, the directory right after the header, one strip per 4 rows
    rows_per = 4
    strips = []
    for y0 in range(0, h, rows_per):
        b = b''
        for y in range(y0, min(h, y0 + rows_per)):
            for x in range(w):
                for s in pix(x, y):
                    b += struct.pack('<f', s) if fmt == 3 else (struct.pack('<H', s) if bits == 16 else bytes([s]))
        strips.append(b)
    def tag(t, typ, cnt, val): return struct.pack('<HHI', t, typ, cnt) + val
    n = 12 if spp == 4 else 11
    ifd_size = 2 + n * 12 + 4
    bps_off = 8 + ifd_size
    extra = struct.pack('<' + 'H' * spp, *([bits] * spp))
    offs_off = bps_off + len(extra)
    cnts_off = offs_off + 4 * len(strips)
    data_off = cnts_off + 4 * len(strips)
    offs = []; o = data_off
    for s in strips: offs.append(o); o += len(s)
    extra += struct.pack('<' + 'I' * len(strips), *offs) + struct.pack('<' + 'I' * len(strips), *[len(s) for s in strips])
    ent = [tag(256, 4, 1, struct.pack('<I', w)), tag(257, 4, 1, struct.pack('<I', h)),
           tag(258, 3, spp, struct.pack('<I', bps_off)),
           tag(259, 3, 1, struct.pack('<HH', 1, 0)), tag(262, 3, 1, struct.pack('<HH', 2, 0)),
           tag(273, 4, len(strips), struct.pack('<I', offs_off)), tag(277, 3, 1, struct.pack('<HH', spp, 0)),
           tag(278, 4, 1, struct.pack('<I', rows_per)), tag(279, 4, len(strips), struct.pack('<I', cnts_off)),
           tag(284, 3, 1, struct.pack('<HH', 1, 0))]
    if spp == 4: ent.append(tag(338, 3, 1, struct.pack('<HH', 2, 0)))
    ent.append(tag(339, 3, 1, struct.pack('<HH', fmt, 0)))
    assert len(ent) == n
    ifd = struct.pack('<H', len(ent)) + b''.join(ent) + struct.pack('<I', 0)
    open(path, 'wb').write(b'II*\0' + struct.pack('<I', 8) + ifd + extra + b''.join(strips))
tiff('tiff/rgb8-strips.tif', 16, 8, 3, 8, 1, lambda x, y: (x * 15, y * 30, (x * y) % 256))
tiff('tiff/float-rgba.tif', 16, 8, 4, 32, 3, lambda x, y: (x * 0.5, y * 2.0, 0.01 * x * y, 1.0))
