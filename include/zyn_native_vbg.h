/*
 * ZYNNativeVBG: native video-effects library for conferencing software.
 *
 * Public C interface of libZYNNativeVBG.so. Every record that crosses this boundary has a fixed
 * binary layout; the offsets are pinned below with static assertions so that a host built by any
 * compiler sees the same bytes.
 *
 * Paths inside the records are NUL-terminated UTF-16 (char16_t), at most 1024 code units with the
 * terminator. JSON texts and the library configuration path are UTF-8.
 */
#ifndef ZYN_NATIVE_VBG_H
#define ZYN_NATIVE_VBG_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <uchar.h>
#define ZYN_EXTERN_C extern "C"
#else
#include <uchar.h>
#define ZYN_EXTERN_C
#endif

#if defined(ZYN_BUILDING_LIBRARY)
#define ZYN_API ZYN_EXTERN_C __attribute__((visibility("default")))
#else
#define ZYN_API ZYN_EXTERN_C
#endif

#define ZYN_PATH_CHARS 1024

/* Status codes returned by the create, update and process exports. */
enum ZynNativeStatus {
    ZYN_STATUS_SUCCESS = 0,
    /* Create only: the configuration held only a "feedback" section; no instance was made. */
    ZYN_STATUS_FEEDBACK_ONLY = 1,
    /* Frame processing failed, or the feedback update failed or found no instance. */
    ZYN_STATUS_FRAME_FAILED = 2,
    /* The configuration could not be converted, or the engine could not be created. */
    ZYN_STATUS_CONFIG_FAILED = 3,
    /* An effect or presenter update was rejected by the engine. */
    ZYN_STATUS_UPDATE_REJECTED = 4,
    /* The requested processing is not supported on this hardware. */
    ZYN_STATUS_NOT_SUPPORTED = 5
};

/* Frame format codes of ZynNativeInputFrame.format. */
enum ZynNativeFrameFormat { ZYN_FORMAT_NV12 = 1, ZYN_FORMAT_I420 = 2 };

/* Effect flag bits of ZynNativeConfig.effects and VBGSettings.effects. */
enum ZynNativeEffectBits { ZYN_EFFECT_BACKGROUND = 1, ZYN_EFFECT_TOUCHUP = 2 };

/* Opaque instance handle. The host's handle variable is the only registry of instances. */
typedef void* ZynNativeHandle;

#pragma pack(push, 4)

/*
 * One frame, used for input and output. NV12: plane 0 luma, plane 1 interleaved U/V at half
 * resolution. I420: planes 0, 1, 2 = Y, U, V, chroma at half resolution. The host owns the record
 * and the planes. processingTime is written by the library into the output record only: the
 * frame's total processing time in whole milliseconds.
 */
typedef struct ZynNativeInputFrame {
    uint32_t width;
    uint32_t height;
    uint32_t format;
    uint8_t* plane0;
    uint32_t stride0;
    uint8_t* plane1;
    uint32_t stride1;
    uint8_t* plane2;
    uint32_t stride2;
    float processingTime;
} ZynNativeInputFrame;

/* Native per-instance configuration (older interface: filled by the host). */
typedef struct ZynNativeConfig {
    uint32_t effects;                       /* ZynNativeEffectBits */
    char16_t modelFilePath[ZYN_PATH_CHARS]; /* models folder + "/model.winml" */
    uint32_t processingMode;                /* 1..9, default 3 (automatic) */
    uint32_t backgroundEffectKind;          /* 1 blur, 2 background file */
    uint32_t backgroundFormat;     /* 1 png, 2 jpg/jpeg, 3 gif, 4 mp4, 5 ogv, 6 mov, 7 webm */
    uint32_t backgroundDataSource; /* 0 none, 1 file, 2 in memory */
    char16_t backgroundFilePath[ZYN_PATH_CHARS];
    const uint8_t* backgroundData; /* data source 2 only; host-owned */
    uint32_t backgroundDataSize;
    char16_t logPath[ZYN_PATH_CHARS];
    char16_t fileCachePath[ZYN_PATH_CHARS];
    float touchUpSigma; /* default 0.03 */
} ZynNativeConfig;

#pragma pack(pop)

/* Presenter ("weatherman") settings. */
typedef struct ZynNativeWeathermanSettings {
    int32_t mode;      /* -1 none, 1 overlay, 2 underlay, 3 newsroom, 4 conferenceroom */
    uint32_t reserved; /* always 3 */
    float overlayAlpha;
    float overlaySize;
    float overlayOffsetX;
    float overlayOffsetY;
    float underlaySize;
    float underlayOffsetX;
    float underlayOffsetY;
    int32_t underlayMode;
    float newsroomSize;
    float newsroomPresentationSize;
    int32_t newsroomPosition; /* 1: presenter on the right */
    char16_t newsroomBackgroundFile[ZYN_PATH_CHARS];
    float conferenceroomSize;
    char16_t conferenceroomBackgroundFile[ZYN_PATH_CHARS];
} ZynNativeWeathermanSettings;

/* Effect settings record consumed by the engines (and by ZynNativeInternalCreate). */
typedef struct VBGSettings {
    uint32_t pt; /* processing type, default 9 (automatic) */
    uint32_t bt; /* background type: 0 none, 1 blur, 2 image, 3 video */
    uint32_t imageOrVideoType;
    uint32_t imageOrVideoDataSource; /* 0 none, 1 disk file, 2 in memory */
    char16_t backgroundImageFile[ZYN_PATH_CHARS];
    const uint8_t* pData;
    uint32_t dataSize;
    uint32_t blurAlgo; /* 0 none, 1 resize blur */
    char16_t modelFilePath[ZYN_PATH_CHARS];
    char16_t logDirectory[ZYN_PATH_CHARS];
    char16_t fileCachePath[ZYN_PATH_CHARS];
    uint32_t effects;
    float touchUpSigma;
    /* Options handed to the video background player; bit 0: extra consumer of every decoded frame,
     * bit 1: decoded frames stay in CPU memory (always the case on this platform). */
    uint8_t playbackOptions;
    uint8_t reserved[7];
} VBGSettings;

/* Library version: the four parts of the product version. */
typedef struct ZynNativeVersion {
    uint32_t major;
    uint32_t minor;
    uint32_t build;
    uint32_t revision;
} ZynNativeVersion;

#ifdef __cplusplus
#define ZYN_STATIC_ASSERT static_assert
#else
#define ZYN_STATIC_ASSERT _Static_assert
#endif

ZYN_STATIC_ASSERT(sizeof(ZynNativeInputFrame) == 52, "ZynNativeInputFrame size");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, width) == 0, "width");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, height) == 4, "height");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, format) == 8, "format");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, plane0) == 12, "plane0");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, stride0) == 20, "stride0");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, plane1) == 24, "plane1");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, stride1) == 32, "stride1");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, plane2) == 36, "plane2");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, stride2) == 44, "stride2");
ZYN_STATIC_ASSERT(offsetof(ZynNativeInputFrame, processingTime) == 48, "processingTime");

ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, effects) == 0, "effects");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, modelFilePath) == 4, "modelFilePath");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, processingMode) == 2052, "processingMode");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, backgroundEffectKind) == 2056, "kind");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, backgroundFormat) == 2060, "format");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, backgroundDataSource) == 2064, "source");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, backgroundFilePath) == 2068, "file");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, backgroundData) == 4116, "data");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, backgroundDataSize) == 4124, "size");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, logPath) == 4128, "logPath");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, fileCachePath) == 6176, "fileCachePath");
ZYN_STATIC_ASSERT(offsetof(ZynNativeConfig, touchUpSigma) == 8224, "touchUpSigma");
ZYN_STATIC_ASSERT(sizeof(ZynNativeConfig) == 8228, "ZynNativeConfig size");

ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, mode) == 0, "mode");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, reserved) == 4, "reserved");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, overlayAlpha) == 8, "alpha");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, overlaySize) == 12, "overlaySize");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, overlayOffsetX) == 16, "ox");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, overlayOffsetY) == 20, "oy");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, underlaySize) == 24, "underlaySize");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, underlayOffsetX) == 28, "ux");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, underlayOffsetY) == 32, "uy");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, underlayMode) == 36, "underlayMode");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, newsroomSize) == 40, "newsroomSize");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, newsroomPresentationSize) == 44, "ps");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, newsroomPosition) == 48, "position");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, newsroomBackgroundFile) == 52, "nbg");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, conferenceroomSize) == 2100, "cs");
ZYN_STATIC_ASSERT(offsetof(ZynNativeWeathermanSettings, conferenceroomBackgroundFile) == 2104,
                  "cbg");
ZYN_STATIC_ASSERT(sizeof(ZynNativeWeathermanSettings) == 4152, "presenter settings size");

ZYN_STATIC_ASSERT(offsetof(VBGSettings, pt) == 0, "pt");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, bt) == 4, "bt");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, imageOrVideoType) == 8, "imageOrVideoType");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, imageOrVideoDataSource) == 12, "dataSource");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, backgroundImageFile) == 16, "backgroundImageFile");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, pData) == 2064, "pData");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, dataSize) == 2072, "dataSize");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, blurAlgo) == 2076, "blurAlgo");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, modelFilePath) == 2080, "modelFilePath");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, logDirectory) == 4128, "logDirectory");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, fileCachePath) == 6176, "fileCachePath");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, effects) == 8224, "effects");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, touchUpSigma) == 8228, "touchUpSigma");
ZYN_STATIC_ASSERT(offsetof(VBGSettings, playbackOptions) == 8232, "playbackOptions");
ZYN_STATIC_ASSERT(sizeof(VBGSettings) == 8240, "VBGSettings size");

ZYN_STATIC_ASSERT(sizeof(ZynNativeVersion) == 16, "ZynNativeVersion size");

/* ---- Library ------------------------------------------------------------------------------ */

/* Reads the library configuration file (UTF-8 path of a JSON file with "modelsPath", "logPath"
 * and "fileCachePath"), sets up the log and starts the processing-type evaluation. */
ZYN_API bool ZynNativeVideoProcessingInit(const char* configPath);

/* Product version, four zeros when it cannot be read. */
ZYN_API ZynNativeVersion ZynNativeVbgGetVersion(void);
/* Fills *out; false (and nothing written) for a null pointer. */
ZYN_API bool ZynNativeVideoProcessingGetVersion(ZynNativeVersion* out);

/* Whether this machine can run the effects. */
ZYN_API bool ZynNativeVbgIsSupported(void);
/* Static JSON text listing the supported effects ("" when unsupported). Owned by the library. */
ZYN_API const char* ZynNativeVideoProcessingGetSupportedEffects(void);

/* ---- Older interface: native configuration records, one process-wide lock ------------------ */

ZYN_API uint32_t ZynNativeVbgCreateInstance(const ZynNativeConfig* config, ZynNativeHandle* handle);
ZYN_API uint32_t ZynNativeVbgUpdateInstance(ZynNativeHandle* handle, const ZynNativeConfig* config);
ZYN_API uint32_t ZynNativeVbgProcessFrame(ZynNativeHandle* handle, const ZynNativeInputFrame* in,
                                          ZynNativeInputFrame* out);
ZYN_API void ZynNativeVbgDestroyInstance(ZynNativeHandle* handle);
ZYN_API void ZynNativeVbgShutdownInstance(void);

/* ---- Newer interface: JSON effect configurations, no lock ---------------------------------- */

ZYN_API uint32_t ZynNativeVideoProcessingCreateInstance(const char* jsonConfig,
                                                        ZynNativeHandle* handle);
/* A failed update (status other than 0) destroys the instance and writes null to the handle. */
ZYN_API uint32_t ZynNativeVideoProcessingUpdateInstance(ZynNativeHandle* handle,
                                                        const char* jsonConfig);
ZYN_API uint32_t ZynNativeVideoProcessingProcessFrame(ZynNativeHandle* handle,
                                                      const ZynNativeInputFrame* in,
                                                      ZynNativeInputFrame* out);
/*
 * Presenter ("weatherman") frame. frames points to two consecutive input records: [0] the camera
 * frame, [1] the presentation (screen-share) frame. out receives the composed frame, whose size
 * ZynNativeVideoProcessingGetOutputFrameSize reports for the "newsroom" and "conferenceroom"
 * modes (the presentation's size otherwise).
 */
ZYN_API uint32_t ZynNativeVideoProcessingProcessPresentationFrame(ZynNativeHandle* handle,
                                                                  const ZynNativeInputFrame* frames,
                                                                  ZynNativeInputFrame* out);
/* Output size of the presenter modes that have a background picture; false otherwise. */
ZYN_API bool ZynNativeVideoProcessingGetOutputFrameSize(ZynNativeHandle* handle, uint32_t* width,
                                                        uint32_t* height);
/*
 * Frame statistics of the instance as a JSON object text, owned by the instance and valid until
 * the next call for it:
 *   {"preProcessedTime":P,"inferenceTime":I,"postProcessedTime":Q,"fullFrameTime":T}
 * with the last complete frame's stage times in whole milliseconds (the camera stream's, or the
 * presentation stream's while a presenter mode is on). "" for a null instance. frameWidth,
 * frameHeight and processingType, when not null, receive the frame size the engine works at and
 * the processing type it runs.
 */
ZYN_API const char* ZynNativeVideoProcessingGetFrameProcessingStats(ZynNativeHandle* handle,
                                                                    uint32_t* frameWidth,
                                                                    uint32_t* frameHeight,
                                                                    uint32_t* processingType);
ZYN_API void ZynNativeVideoProcessingDestroyInstance(ZynNativeHandle* handle);
ZYN_API void ZynNativeVideoProcessingShutdownInstance(void);

/* ---- Engines from ready-made settings ------------------------------------------------------ */

ZYN_API void* ZynNativeInternalCreate(const VBGSettings* settings);
ZYN_API void ZynNativeInternalDestroy(void* object);

#endif /* ZYN_NATIVE_VBG_H */
