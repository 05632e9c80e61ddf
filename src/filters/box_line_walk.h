// The walk of one box pass along a line, shared by the portable and the vector kernels so that
// both visit the same pixels in the same order and divide by the same counts. It has no include
// guard and is meant to be included inside an unnamed namespace (the vector files include it
// after switching their instruction set, so each file gets its own copy compiled for it).
//
// Span is told which pixel enters and leaves the running sums and when output i is due, with the
// number of pixels in its window and whether it is a middle pixel:
//   void enter(int k); void leave(int k); void emit(int i, int windowPixels, bool middle);

inline int WindowPixels(int i, int n, int r) {
    const int first = i - r > 0 ? i - r : 0;
    const int last = i + r < n - 1 ? i + r : n - 1;
    return last - first + 1;
}

// Radius r >= 1, n >= 1 pixels.
template <class Span>
inline void WalkLine(Span& span, int n, int r) {
    if (n >= 2 * r + 1) {
        // sum = p[0] + ... + p[r - 1]
        for (int k = 0; k < r; ++k) {
            span.enter(k);
        }
        // The first r + 1 outputs divide by r + 1 + i.
        for (int i = 0; i <= r; ++i) {
            span.enter(i + r);
            span.emit(i, r + 1 + i, false);
        }
        // The middle ones by 2r + 1.
        for (int i = r + 1; i <= n - r - 1; ++i) {
            span.enter(i + r);
            span.leave(i - r - 1);
            span.emit(i, 2 * r + 1, true);
        }
        // The last r by 2r, 2r - 1, ..., r + 1.
        int pixels = 2 * r;
        for (int i = n - r; i < n; ++i) {
            span.leave(i - r - 1);
            span.emit(i, pixels, false);
            --pixels;
        }
        return;
    }
    // A line shorter than a full window: every window is cut at the line's ends and each output
    // averages the pixels that exist.
    for (int k = 0; k < r && k < n; ++k) {
        span.enter(k);
    }
    for (int i = 0; i < n; ++i) {
        if (i + r < n) {
            span.enter(i + r);
        }
        if (i - r - 1 >= 0) {
            span.leave(i - r - 1);
        }
        span.emit(i, WindowPixels(i, n, r), false);
    }
}
