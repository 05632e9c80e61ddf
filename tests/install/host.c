/* A host built against an installed tree: blurs a generated NV12 frame (high-contrast stripes on
 * the left, flat grey on the right, no person) and checks that the stripes were blurred away while
 * the flat part kept its value.
 *   host CONFIG MODE     initialise with the library configuration CONFIG, create a blur instance
 *                        with processing mode MODE, process three frames, check the last
 *   host --frame FILE    write the generated frame (raw NV12)
 *   host --check FILE    check a processed frame (raw NV12) written by another program
 * Exit codes: 0 blurred, 1 usage or file error, 2 create failed, 3 frame failed, 4 not blurred. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zyn_native_vbg.h"

enum { W = 320, H = 240, FRAME_BYTES = W * H * 3 / 2 };

static void makeFrame(uint8_t* f) {
    memset(f, 128, FRAME_BYTES);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W / 2; ++x)
            f[y * W + x] = (x / 4) % 2 ? 235 : 16;
}

/* Mean step between neighbours inside the stripes, and the largest distance from 128 in the flat
 * part, both away from the edge between them. */
static int checkBlurred(const uint8_t* f) {
    long steps = 0, count = 0;
    int flatError = 0;
    for (int y = 0; y < H; ++y) {
        for (int x = 16; x < 120; ++x, ++count)
            steps += abs(f[y * W + x + 1] - f[y * W + x]);
        for (int x = 220; x < 304; ++x)
            if (abs(f[y * W + x] - 128) > flatError)
                flatError = abs(f[y * W + x] - 128);
    }
    const double meanStep = (double)steps / count; /* 54.75 before any blur */
    printf("stripes: mean step %.2f; flat part: largest error %d\n", meanStep, flatError);
    return meanStep < 10.0 && flatError <= 3 ? 0 : 4;
}

static int fileFrame(const char* path, uint8_t* f, int write) {
    FILE* file = fopen(path, write ? "wb" : "rb");
    const size_t done =
        file ? (write ? fwrite(f, 1, FRAME_BYTES, file) : fread(f, 1, FRAME_BYTES, file)) : 0;
    if (file)
        fclose(file);
    return done == FRAME_BYTES;
}

int main(int argc, char** argv) {
    static uint8_t in[FRAME_BYTES], out[FRAME_BYTES];
    if (argc != 3)
        return 1;
    if (strcmp(argv[1], "--frame") == 0) {
        makeFrame(in);
        return fileFrame(argv[2], in, 1) ? 0 : 1;
    }
    if (strcmp(argv[1], "--check") == 0)
        return fileFrame(argv[2], out, 0) ? checkBlurred(out) : 1;

    if (!ZynNativeVideoProcessingInit(argv[1]))
        return 1;
    char config[128];
    snprintf(config, sizeof config, "{\"processingMode\": %s, \"effects\": [{\"name\": \"blur\"}]}",
             argv[2]);
    ZynNativeHandle vbg = NULL;
    if (ZynNativeVideoProcessingCreateInstance(config, &vbg) != ZYN_STATUS_SUCCESS || vbg == NULL) {
        ZynNativeVideoProcessingShutdownInstance();
        return 2;
    }
    makeFrame(in);
    ZynNativeInputFrame inFrame = {W, H, ZYN_FORMAT_NV12, in, W, in + W * H, W, NULL, 0, 0.0f};
    ZynNativeInputFrame outFrame = inFrame;
    outFrame.plane0 = out;
    outFrame.plane1 = out + W * H;
    int result = 0;
    for (int i = 0; i < 3 && result == 0; ++i)
        if (ZynNativeVideoProcessingProcessFrame(&vbg, &inFrame, &outFrame) != ZYN_STATUS_SUCCESS)
            result = 3;
    ZynNativeVideoProcessingDestroyInstance(&vbg);
    ZynNativeVideoProcessingShutdownInstance();
    return result != 0 ? result : checkBlurred(out);
}
