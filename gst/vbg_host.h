// The GStreamer elements' side of libZYNNativeVBG.so: the library loaded once per process and
// reached only through its exports, initialised with the elements' folders, and one effect
// instance per element with the last configuration the library accepted.
#pragma once

#include <glib-object.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "effect_config.h"
#include "vbg_library.h"

namespace zyngst {

// The library's folders: segmentation models, log, file cache.
struct Folders {
    std::string models;
    std::string cache;
    std::string log;
    bool operator==(const Folders& o) const {
        return models == o.models && cache == o.cache && log == o.log;
    }
    bool operator!=(const Folders& o) const { return !(*this == o); }
};

// Defaults that work from the build tree and from an installed tree: the models installed beside
// the plugin's prefix, else the ones the set-up script built; log and file cache under the user's
// cache folder ($XDG_CACHE_HOME/zynvbg or ~/.cache/zynvbg), as the zynvbg tool keeps them.
Folders DefaultFolders();

// The properties both elements have, at consecutive ids from `first` in this order: the library's
// folders (models, cache, log) and the read-only statistics.
enum SharedProperty : guint { kPropModels, kPropCache, kPropLog, kPropStats };
void InstallSharedProperties(GObjectClass* object, guint first, GParamFlags rw);
// The field of folder property `offset` (kPropModels to kPropLog).
std::string& FolderOf(Folders& folders, guint offset);
const std::string& FolderOf(const Folders& folders, guint offset);

// "3 (configuration or creation failure)"
std::string StatusText(uint32_t status);

// One effect instance of one element. Every call comes from the element's streaming thread, or
// from its state changes while no frame flows; the library is initialised under a process-wide
// lock, because its folders are process-wide.
class EffectInstance {
  public:
    EffectInstance() = default;
    ~EffectInstance();
    EffectInstance(const EffectInstance&) = delete;
    EffectInstance& operator=(const EffectInstance&) = delete;

    // Loads the library (once per process) and initialises it with `folders` when they differ
    // from the ones it has. False with `error` set when it cannot.
    bool open(const Folders& folders, std::string& error);
    // Destroys the instance; the last element to close shuts the library's shared objects down.
    void close();

    // Creates the instance (again) from an effect configuration (JSON text whose "backgroundFile"
    // names may be any path; they are placed in the file cache). `mode` is the processing mode used
    // when the text has none. Returns the library's status (or ZYN_STATUS_CONFIG_FAILED for a
    // text or a file refused before the library saw it) and explains a failure in `error`; after
    // a refusal the instance of the last configuration that worked (if any) is made again.
    uint32_t create(const std::string& json, int mode, std::string& error);
    // Changes the configuration through the library's update. The library destroys an instance
    // whose update fails: it is then made again from the last configuration that worked, and
    // the status of the refused update is returned with `error` set.
    uint32_t update(const std::string& json, int mode, std::string& error);

    bool alive() const { return handle_ != nullptr; }
    ZynNativeHandle* handle() { return &handle_; }
    zynvbg::VbgLibrary& library() { return *library_; }
    const Folders& folders() const { return folders_; }
    // The text the library last accepted, as handed to it.
    const std::string& lastGood() const { return lastGood_; }

  private:
    std::optional<std::string> prepare(const std::string& json, int mode, std::string& error);
    std::string explain(uint32_t status, const std::string& json) const;
    void recreateLastGood();

    zynvbg::VbgLibrary* library_ = nullptr;
    std::unique_ptr<zynvbg::FileCache> cache_;
    Folders folders_;
    ZynNativeHandle handle_ = nullptr;
    std::string lastGood_;
    bool opened_ = false;
};

// Why a property value is refused ("" when it is not): a `json` text that is not a JSON object, an
// empty `folder`. The previous value stays.
std::string RefusedValue(bool json, bool folder, GParamSpec* pspec, const GValue* value);

// Mode names of the presenter layouts and their library values (1 to 4).
const char* PresenterModeName(int mode);

}  // namespace zyngst
