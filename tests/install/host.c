/* A host built against an installed tree on an NV12 frame (stripes left, grey right, no person):
 * exit 0 when the stripes are blurred away and the grey kept.   host CONFIG MODE: blur three
 * frames in mode MODE (exit 2 no instance, 3 a frame failed).   host --frame FILE: write the
 * frame.   host --check FILE: check a blurred one. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zyn_native_vbg.h"

enum { W = 320, H = 240, BYTES = W * H * 3 / 2 };
static uint8_t in[BYTES], out[BYTES];

/* The mean step between neighbours inside the stripes (54.75 before any blur) and the largest
 * distance from 128 in the flat part, both away from the edge between them. */
static int blurred(void) {
    long steps = 0, flatError = 0;
    for (int y = 0; y < H; ++y) {
        for (int x = 16; x < 120; ++x)
            steps += abs(out[y * W + x + 1] - out[y * W + x]);
        for (int x = 220; x < 304; ++x)
            flatError =
                abs(out[y * W + x] - 128) > flatError ? abs(out[y * W + x] - 128) : flatError;
    }
    printf("stripes: mean step %.2f; flat part: largest error %ld\n", steps / (104.0 * H),
           flatError);
    return steps / (104.0 * H) < 10.0 && flatError <= 3 ? 0 : 4;
}

int main(int argc, char** argv) {
    memset(in, 128, BYTES);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W / 2; ++x)
            in[y * W + x] = (x / 4) % 2 ? 235 : 16;
    if (argc != 3)
        return 1;
    FILE* file =
        argv[1][0] == '-' ? fopen(argv[2], strcmp(argv[1], "--frame") ? "rb" : "wb") : NULL;
    if (file != NULL) {
        const size_t done =
            strcmp(argv[1], "--frame") ? fread(out, 1, BYTES, file) : fwrite(in, 1, BYTES, file);
        fclose(file);
        return done != BYTES ? 1 : strcmp(argv[1], "--frame") ? blurred() : 0;
    }
    char config[128];
    snprintf(config, sizeof config, "{\"processingMode\": %s, \"effects\": [{\"name\": \"blur\"}]}",
             argv[2]);
    ZynNativeHandle vbg = NULL;
    if (!ZynNativeVideoProcessingInit(argv[1]))
        return 1;
    int result = ZynNativeVideoProcessingCreateInstance(config, &vbg) || vbg == NULL ? 2 : 0;
    ZynNativeInputFrame inFrame = {W, H, ZYN_FORMAT_NV12, in, W, in + W * H, W, NULL, 0, 0.0f};
    ZynNativeInputFrame outFrame = {W, H, ZYN_FORMAT_NV12, out, W, out + W * H, W, NULL, 0, 0.0f};
    for (int i = 0; i < 3 && result == 0; ++i)
        result = ZynNativeVideoProcessingProcessFrame(&vbg, &inFrame, &outFrame) ? 3 : 0;
    ZynNativeVideoProcessingDestroyInstance(&vbg);
    ZynNativeVideoProcessingShutdownInstance();
    return result != 0 ? result : blurred();
}
