// Body of the vector blur kernels, written once over a set of vector operations `Ops` and
// compiled once per instruction set: blur_sse2.cpp and blur_avx2.cpp each include it inside an
// unnamed namespace after defining Ops (and, for AVX2, after switching the instruction set), so
// every function here exists once per file, compiled for that file's instructions. No include
// guard, no includes of its own.
//
// Ops works on chunks of 16 bytes, keeping their running sums as 16 unsigned 16-bit lanes:
//   Sum Zero(); Sum Load(p); Sum Add(a, b); Sum Sub(a, b); Sum Kept(weights); Sum And(a, b);
//   Magic PrepareMagic(DivisorMagic); void StoreQuotient(dst, sum, magic);
//   Float Broadcast(float); void StoreScaled(dst, sum, scale); void StoreDivided(dst, sum, div);
//   void StoreMaskedMean(dst, sum, taken, src, weights);

constexpr int kChunk = 16;     // bytes per vector chunk; also the rows of a single-channel strip
constexpr int kArgbStrip = 4;  // rows of an ARGB strip (4 pixels of 4 bytes fill a chunk)

// ---- Spans: the running sums of one 16-byte chunk column, driven by WalkLine.

struct PlainColumns {
    const uint8_t* src;
    uint8_t* dst;
    ptrdiff_t stride;
    const DivisorMagic* magic;
    Ops::Magic middle;
    Ops::Sum sum;

    void enter(int k) { sum = Ops::Add(sum, Ops::Load(src + k * stride)); }
    void leave(int k) { sum = Ops::Sub(sum, Ops::Load(src + k * stride)); }
    void emit(int i, int pixels, bool isMiddle) {
        Ops::StoreQuotient(dst + i * stride, sum,
                           isMiddle ? middle : Ops::PrepareMagic(magic[pixels]));
    }
};

struct MaskedColumns {
    const uint8_t* src;
    const uint8_t* weights;
    uint8_t* dst;
    ptrdiff_t stride;
    Ops::Sum sum;
    Ops::Sum taken;

    void enter(int k) {
        const Ops::Sum kept = Ops::Kept(weights + k * stride);
        sum = Ops::Add(sum, Ops::And(Ops::Load(src + k * stride), kept));
        taken = Ops::Sub(taken, kept);  // kept lanes are all ones, i.e. -1
    }
    void leave(int k) {
        const Ops::Sum kept = Ops::Kept(weights + k * stride);
        sum = Ops::Sub(sum, Ops::And(Ops::Load(src + k * stride), kept));
        taken = Ops::Add(taken, kept);
    }
    void emit(int i, int, bool) {
        Ops::StoreMaskedMean(dst + i * stride, sum, taken, src + i * stride, weights + i * stride);
    }
};

struct ArgbColumns {
    const uint8_t* src;
    uint8_t* dst;
    ptrdiff_t stride;
    Ops::Float inverseWindow;
    Ops::Sum sum;

    void enter(int k) { sum = Ops::Add(sum, Ops::Load(src + k * stride)); }
    void leave(int k) { sum = Ops::Sub(sum, Ops::Load(src + k * stride)); }
    void emit(int i, int pixels, bool isMiddle) {
        if (isMiddle) {
            Ops::StoreScaled(dst + i * stride, sum, inverseWindow);
        } else {
            Ops::StoreDivided(dst + i * stride, sum, Ops::Broadcast(static_cast<float>(pixels)));
        }
    }
};

// Runs `chunk(x)` for every 16-byte chunk of a row of `lanes` bytes (lanes >= 16). A last,
// partial chunk is run over the final 16 bytes instead, overlapping its neighbour: each chunk
// column is computed from the source alone, so the overlap writes the same bytes again.
template <class Chunk>
inline void ForEachChunk(int lanes, Chunk chunk) {
    int x = 0;
    for (; x + kChunk <= lanes; x += kChunk) {
        chunk(x);
    }
    if (x < lanes) {
        chunk(lanes - kChunk);
    }
}

// One box pass down `n` rows of `lanes` bytes, `stride` apart (source and destination alike).
void PlainPass(const uint8_t* src, uint8_t* dst, ptrdiff_t stride, int lanes, int n, int r,
               const DivisorMagic* magic) {
    if (n == 1) {  // a one-pixel window keeps its value
        for (int x = 0; x < lanes; ++x) {
            dst[x] = src[x];
        }
        return;
    }
    if (lanes < kChunk) {
        for (int x = 0; x < lanes; ++x) {
            BoxLine_C(src + x, stride, dst + x, stride, n, r);
        }
        return;
    }
    const Ops::Magic middle = Ops::PrepareMagic(magic[2 * r + 1]);
    ForEachChunk(lanes, [&](int x) {
        PlainColumns span{src + x, dst + x, stride, magic, middle, Ops::Zero()};
        WalkLine(span, n, r);
    });
}

void MaskedPass(const uint8_t* src, const uint8_t* weights, uint8_t* dst, ptrdiff_t stride,
                int lanes, int n, int r) {
    if (n == 1) {
        for (int x = 0; x < lanes; ++x) {
            dst[x] = src[x];
        }
        return;
    }
    if (lanes < kChunk) {
        for (int x = 0; x < lanes; ++x) {
            BoxLineMasked_C(src + x, weights + x, stride, dst + x, stride, n, r);
        }
        return;
    }
    ForEachChunk(lanes, [&](int x) {
        MaskedColumns span{src + x, weights + x, dst + x, stride, Ops::Zero(), Ops::Zero()};
        WalkLine(span, n, r);
    });
}

void ArgbPass(const uint8_t* src, uint8_t* dst, ptrdiff_t stride, int lanes, int n, int r) {
    if (n == 1) {
        for (int x = 0; x < lanes; ++x) {
            dst[x] = src[x];
        }
        return;
    }
    if (lanes < kChunk) {
        for (int x = 0; x < lanes; x += 4) {
            BoxLineArgb_C(src + x, stride, dst + x, stride, n, r);
        }
        return;
    }
    const Ops::Float inverseWindow = Ops::Broadcast(1.0f / static_cast<float>(2 * r + 1));
    ForEachChunk(lanes, [&](int x) {
        ArgbColumns span{src + x, dst + x, stride, inverseWindow, Ops::Zero()};
        WalkLine(span, n, r);
    });
}

// ---- Strips: `rows` (<= 16) rows of a single-channel plane, turned so that strip[x * 16 + k]
// is pixel x of row k. Lanes of missing rows repeat the last row; they are never written back.

inline void Transpose16x16(const __m128i in[16], __m128i out[16]) {
    __m128i a[16];
    __m128i b[16];
    for (int i = 0; i < 8; ++i) {  // pairs of rows: bytes interleaved
        a[2 * i] = _mm_unpacklo_epi8(in[2 * i], in[2 * i + 1]);
        a[2 * i + 1] = _mm_unpackhi_epi8(in[2 * i], in[2 * i + 1]);
    }
    for (int g = 0; g < 4; ++g) {  // groups of four rows: 16-bit pairs interleaved
        const __m128i* s = a + 4 * g;
        __m128i* d = b + 4 * g;
        d[0] = _mm_unpacklo_epi16(s[0], s[2]);
        d[1] = _mm_unpackhi_epi16(s[0], s[2]);
        d[2] = _mm_unpacklo_epi16(s[1], s[3]);
        d[3] = _mm_unpackhi_epi16(s[1], s[3]);
    }
    for (int h = 0; h < 2; ++h) {  // groups of eight rows: 32-bit quads interleaved
        const __m128i* s = b + 8 * h;
        __m128i* d = a + 8 * h;
        for (int j = 0; j < 4; ++j) {
            d[2 * j] = _mm_unpacklo_epi32(s[j], s[j + 4]);
            d[2 * j + 1] = _mm_unpackhi_epi32(s[j], s[j + 4]);
        }
    }
    for (int j = 0; j < 8; ++j) {  // both halves: 64-bit columns joined
        out[2 * j] = _mm_unpacklo_epi64(a[j], a[j + 8]);
        out[2 * j + 1] = _mm_unpackhi_epi64(a[j], a[j + 8]);
    }
}

void GatherStrip(const uint8_t* src, int width, int rows, uint8_t* strip) {
    const uint8_t* row[kChunk];
    for (int k = 0; k < kChunk; ++k) {
        row[k] = src + static_cast<ptrdiff_t>(k < rows ? k : rows - 1) * width;
    }
    int x = 0;
    for (; x + kChunk <= width; x += kChunk) {
        __m128i in[kChunk];
        __m128i out[kChunk];
        for (int k = 0; k < kChunk; ++k) {
            in[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row[k] + x));
        }
        Transpose16x16(in, out);
        for (int c = 0; c < kChunk; ++c) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(strip + (x + c) * kChunk), out[c]);
        }
    }
    for (; x < width; ++x) {
        for (int k = 0; k < kChunk; ++k) {
            strip[x * kChunk + k] = row[k][x];
        }
    }
}

void ScatterStrip(const uint8_t* strip, int width, int rows, uint8_t* dst) {
    int x = 0;
    for (; x + kChunk <= width; x += kChunk) {
        __m128i in[kChunk];
        __m128i out[kChunk];
        for (int c = 0; c < kChunk; ++c) {
            in[c] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(strip + (x + c) * kChunk));
        }
        Transpose16x16(in, out);
        for (int k = 0; k < rows; ++k) {
            _mm_storeu_si128(
                reinterpret_cast<__m128i*>(dst + static_cast<ptrdiff_t>(k) * width + x), out[k]);
        }
    }
    for (; x < width; ++x) {
        for (int k = 0; k < rows; ++k) {
            dst[static_cast<ptrdiff_t>(k) * width + x] = strip[x * kChunk + k];
        }
    }
}

// ARGB strips: `rows` (<= 4) rows of four-byte pixels; strip[x * 16 + k * 4 + c] is byte c of
// pixel x of row k.

inline void Transpose4x4Pixels(const __m128i in[4], __m128i out[4]) {
    const __m128i t0 = _mm_unpacklo_epi32(in[0], in[1]);
    const __m128i t1 = _mm_unpackhi_epi32(in[0], in[1]);
    const __m128i t2 = _mm_unpacklo_epi32(in[2], in[3]);
    const __m128i t3 = _mm_unpackhi_epi32(in[2], in[3]);
    out[0] = _mm_unpacklo_epi64(t0, t2);
    out[1] = _mm_unpackhi_epi64(t0, t2);
    out[2] = _mm_unpacklo_epi64(t1, t3);
    out[3] = _mm_unpackhi_epi64(t1, t3);
}

void GatherStripArgb(const uint8_t* src, int width, int rows, uint8_t* strip) {
    const uint8_t* row[kArgbStrip];
    for (int k = 0; k < kArgbStrip; ++k) {
        row[k] = src + static_cast<ptrdiff_t>(k < rows ? k : rows - 1) * width * 4;
    }
    int x = 0;
    for (; x + 4 <= width; x += 4) {
        __m128i in[4];
        __m128i out[4];
        for (int k = 0; k < 4; ++k) {
            in[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row[k] + x * 4));
        }
        Transpose4x4Pixels(in, out);
        for (int c = 0; c < 4; ++c) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(strip + (x + c) * kChunk), out[c]);
        }
    }
    for (; x < width; ++x) {
        for (int k = 0; k < kArgbStrip; ++k) {
            for (int c = 0; c < 4; ++c) {
                strip[x * kChunk + k * 4 + c] = row[k][x * 4 + c];
            }
        }
    }
}

void ScatterStripArgb(const uint8_t* strip, int width, int rows, uint8_t* dst) {
    int x = 0;
    const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(width) * 4;
    for (; x + 4 <= width; x += 4) {
        __m128i in[4];
        __m128i out[4];
        for (int c = 0; c < 4; ++c) {
            in[c] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(strip + (x + c) * kChunk));
        }
        Transpose4x4Pixels(in, out);
        for (int k = 0; k < rows; ++k) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + k * rowBytes + x * 4), out[k]);
        }
    }
    for (; x < width; ++x) {
        for (int k = 0; k < rows; ++k) {
            for (int c = 0; c < 4; ++c) {
                dst[k * rowBytes + x * 4 + c] = strip[x * kChunk + k * 4 + c];
            }
        }
    }
}

// ---- Whole blurs.

// The non-zero radii in pass order; returns how many.
inline int ActiveRadii(const int radii[3], int active[3]) {
    int count = 0;
    for (int i = 0; i < 3; ++i) {
        if (radii[i] > 0) {
            active[count++] = radii[i];
        }
    }
    return count;
}

// Single-channel blur, plain (weights == nullptr) or masked.
void BlurSingleChannel(uint8_t* plane, const uint8_t* weights, int width, int height,
                       const int radii[3], const VectorBlurScratch& scratch) {
    int active[3];
    const int passes = ActiveRadii(radii, active);
    if (passes == 0 || width <= 0 || height <= 0) {
        return;  // every pass copies
    }
    // The column passes alternate between two planes; the row passes write into the one that
    // makes the last column pass land in `plane`.
    uint8_t* rowResult = passes % 2 == 1 ? scratch.plane : plane;
    uint8_t* stripA = scratch.strips;
    uint8_t* stripB = stripA + static_cast<ptrdiff_t>(width) * kChunk;
    uint8_t* stripWeights = stripB + static_cast<ptrdiff_t>(width) * kChunk;

    for (int y = 0; y < height; y += kChunk) {
        const int rows = height - y < kChunk ? height - y : kChunk;
        const ptrdiff_t offset = static_cast<ptrdiff_t>(y) * width;
        GatherStrip(plane + offset, width, rows, stripA);
        if (weights != nullptr) {
            GatherStrip(weights + offset, width, rows, stripWeights);
        }
        uint8_t* from = stripA;
        uint8_t* to = stripB;
        for (int p = 0; p < passes; ++p) {
            if (weights != nullptr) {
                MaskedPass(from, stripWeights, to, kChunk, kChunk, width, active[p]);
            } else {
                PlainPass(from, to, kChunk, kChunk, width, active[p], scratch.magic);
            }
            uint8_t* t = from;
            from = to;
            to = t;
        }
        ScatterStrip(from, width, rows, rowResult + offset);
    }

    uint8_t* from = rowResult;
    uint8_t* to = rowResult == plane ? scratch.plane : plane;
    for (int p = 0; p < passes; ++p) {
        if (weights != nullptr) {
            MaskedPass(from, weights, to, width, width, height, active[p]);
        } else {
            PlainPass(from, to, width, width, height, active[p], scratch.magic);
        }
        uint8_t* t = from;
        from = to;
        to = t;
    }
}

void BlurFourChannel(uint8_t* pixels, int width, int height, const int radii[3],
                     const VectorBlurScratch& scratch) {
    int active[3];
    const int passes = ActiveRadii(radii, active);
    if (passes == 0 || width <= 0 || height <= 0) {
        return;
    }
    const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(width) * 4;
    uint8_t* rowResult = passes % 2 == 1 ? scratch.plane : pixels;
    uint8_t* stripA = scratch.strips;
    uint8_t* stripB = stripA + static_cast<ptrdiff_t>(width) * kChunk;

    for (int y = 0; y < height; y += kArgbStrip) {
        const int rows = height - y < kArgbStrip ? height - y : kArgbStrip;
        GatherStripArgb(pixels + y * rowBytes, width, rows, stripA);
        uint8_t* from = stripA;
        uint8_t* to = stripB;
        for (int p = 0; p < passes; ++p) {
            ArgbPass(from, to, kChunk, kChunk, width, active[p]);
            uint8_t* t = from;
            from = to;
            to = t;
        }
        ScatterStripArgb(from, width, rows, rowResult + y * rowBytes);
    }

    uint8_t* from = rowResult;
    uint8_t* to = rowResult == pixels ? scratch.plane : pixels;
    for (int p = 0; p < passes; ++p) {
        ArgbPass(from, to, rowBytes, static_cast<int>(rowBytes), height, active[p]);
        uint8_t* t = from;
        from = to;
        to = t;
    }
}
