#include "vbg_host.h"

#include <gst/gst.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "tool_error.h"

namespace zyngst {
namespace fs = std::filesystem;
namespace {

// Process-wide: the loaded library, the folders it was initialised with, and how many elements
// have it open.
struct Shared {
    std::mutex mutex;
    zynvbg::VbgLibrary* library = nullptr;  // never unloaded (its threads outlive instances)
    Folders initialised;
    bool haveInit = false;
    int users = 0;
};

Shared& shared() {
    static Shared s;
    return s;
}

fs::path pluginFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&DefaultFolders), &info) != 0 && info.dli_fname != nullptr) {
        std::error_code ec;
        return fs::weakly_canonical(fs::path(info.dli_fname), ec).parent_path();
    }
    return {};
}

// Installed: <libdir>/gstreamer-1.0/<plugin> and <libdir>/libZYNNativeVBG.so; in the build tree
// the library's own path is compiled in; last, the system's library search path.
std::string findLibrary() {
    const fs::path plugin = pluginFolder();
    for (const char* name : {"libZYNNativeVBG.so", "libZYNNativeVBG.so.1"}) {
        std::error_code ec;
        const fs::path candidate = plugin / ".." / name;
        if (!plugin.empty() && fs::is_regular_file(candidate, ec)) {
            return fs::weakly_canonical(candidate, ec).string();
        }
    }
    std::error_code ec;
    if (fs::is_regular_file(ZYN_GST_BUILD_LIBRARY, ec)) {
        return ZYN_GST_BUILD_LIBRARY;
    }
    return "libZYNNativeVBG.so.1";
}

fs::path userCacheFolder() {
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    if (xdg != nullptr && xdg[0] == '/') {
        return fs::path(xdg) / "zynvbg";
    }
    const char* home = std::getenv("HOME");
    return fs::path(home != nullptr && home[0] != '\0' ? home : "/tmp") / ".cache" / "zynvbg";
}

std::string jsonEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

}  // namespace

Folders DefaultFolders() {
    Folders folders;
    const fs::path plugin = pluginFolder();
    std::vector<fs::path> models;
    if (!plugin.empty()) {
        models.push_back(plugin / ZYN_GST_DATA_FROM_PLUGIN / "ZYNNativeVBG" / "models");
        models.push_back(plugin / ZYN_GST_DATA_FROM_PLUGIN / "zynvbg" / "models");
    }
    models.push_back(ZYN_GST_BUILD_MODELS_DIR);
    folders.models = models.back().string();
    for (const fs::path& candidate : models) {
        std::error_code ec;
        if (fs::is_regular_file(candidate / "model.winml", ec)) {
            folders.models = fs::weakly_canonical(candidate, ec).string();
            break;
        }
    }
    folders.cache = (userCacheFolder() / "cache").string();
    folders.log = (userCacheFolder() / "logs").string();
    return folders;
}

std::string StatusText(uint32_t status) {
    static const char* const kMeaning[] = {"success",         "feedback section only",
                                           "frame failure",   "configuration or creation failure",
                                           "update rejected", "not supported on this hardware"};
    return std::to_string(status) + " (" + (status < 6 ? kMeaning[status] : "unknown") + ")";
}

void InstallSharedProperties(GObjectClass* object, guint first, GParamFlags rw) {
    const Folders defaults = DefaultFolders();
    g_object_class_install_property(
        object, first + kPropModels,
        g_param_spec_string("models", "Models folder", "Folder holding model.winml",
                            defaults.models.c_str(), rw));
    g_object_class_install_property(
        object, first + kPropCache,
        g_param_spec_string("cache", "File cache folder",
                            "The library's file cache (background files, processing-type choice)",
                            defaults.cache.c_str(), rw));
    g_object_class_install_property(
        object, first + kPropLog,
        g_param_spec_string("log", "Log folder", "Folder of ZYNNativeVBG.log", defaults.log.c_str(),
                            rw));
    g_object_class_install_property(
        object, first + kPropStats,
        g_param_spec_boxed("stats", "Statistics",
                           "Frames, time inside the library, CPU load and the library's own stage "
                           "times, as in the element message posted once a second",
                           GST_TYPE_STRUCTURE,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
}

std::string& FolderOf(Folders& folders, guint offset) {
    return offset == kPropModels  ? folders.models
           : offset == kPropCache ? folders.cache
                                  : folders.log;
}

const std::string& FolderOf(const Folders& folders, guint offset) {
    return FolderOf(const_cast<Folders&>(folders), offset);
}

std::string RefusedValue(bool json, bool folder, GParamSpec* pspec, const GValue* value) {
    const char* text = json || folder ? g_value_get_string(value) : nullptr;
    if (folder && (text == nullptr || text[0] == '\0')) {
        return std::string("refused: the ") + pspec->name + " folder cannot be empty";
    }
    if (json && text != nullptr && text[0] != '\0') {
        try {
            zynvbg::CheckJsonObject(text, pspec->name);
        } catch (const std::exception& e) {
            return std::string("refused: ") + e.what() + "; the configuration stays as it was";
        }
    }
    return std::string();
}

const char* PresenterModeName(int mode) {
    static const char* const kNames[] = {"overlay", "underlay", "newsroom", "conferenceroom"};
    return mode >= 1 && mode <= 4 ? kNames[mode - 1] : "";
}

EffectInstance::~EffectInstance() {
    close();
}

bool EffectInstance::open(const Folders& folders, std::string& error) {
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.library == nullptr) {
        try {
            s.library = new zynvbg::VbgLibrary(findLibrary());
        } catch (const std::exception& e) {
            error = e.what();
            return false;
        }
    }
    if (!s.haveInit || s.initialised != folders) {
        std::error_code ec;
        fs::create_directories(folders.cache, ec);
        fs::create_directories(folders.log, ec);
        // The library reads its configuration file once, during the call.
        const fs::path config =
            fs::path(folders.cache) / ("gst-library-" + std::to_string(getpid()) + ".json");
        {
            std::ofstream out(config, std::ios::trunc);
            out << "{\"modelsPath\": \"" << jsonEscaped(folders.models) << "\", \"logPath\": \""
                << jsonEscaped(folders.log) << "\", \"fileCachePath\": \""
                << jsonEscaped(folders.cache) << "\"}";
            if (!out) {
                error = "cannot write the library configuration in the cache folder '" +
                        folders.cache + "'";
                return false;
            }
        }
        const bool initialised = s.library->Init(config.c_str());
        fs::remove(config, ec);
        if (!initialised) {
            error = "the library refused its configuration (models '" + folders.models +
                    "', log '" + folders.log + "', cache '" + folders.cache + "')";
            return false;
        }
        s.initialised = folders;
        s.haveInit = true;
    }
    library_ = s.library;
    if (!opened_) {
        ++s.users;
        opened_ = true;
    }
    if (!cache_ || folders_.cache != folders.cache) {
        cache_ = std::make_unique<zynvbg::FileCache>(folders.cache);
    }
    folders_ = folders;
    return true;
}

void EffectInstance::close() {
    if (!opened_) {
        return;
    }
    if (handle_ != nullptr) {
        library_->Destroy(&handle_);
    }
    lastGood_.clear();
    cache_.reset();
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    opened_ = false;
    if (--s.users == 0) {
        // After the last destroy: releases the shared inference backend; a later create makes
        // it again.
        s.library->Shutdown();
    }
}

std::optional<std::string> EffectInstance::prepare(const std::string& json, int mode,
                                                   std::string& error) {
    try {
        return zynvbg::PrepareConfig(json, "the effect configuration", fs::path(), *cache_,
                                     std::nullopt, mode)
            .json;
    } catch (const std::exception& e) {
        error = e.what();
        return std::nullopt;
    }
}

std::string EffectInstance::explain(uint32_t status, const std::string& json) const {
    std::string text = "the library refused the effect configuration " + json + " with status " +
                       StatusText(status);
    std::error_code ec;
    if (!fs::is_regular_file(fs::path(folders_.models) / "model.winml", ec)) {
        text +=
            ": no segmentation model (model.winml) in the models folder '" + folders_.models + "'";
    }
    return text + "; its log is " + (fs::path(folders_.log) / "ZYNNativeVBG.log").string();
}

uint32_t EffectInstance::create(const std::string& json, int mode, std::string& error) {
    const std::optional<std::string> text = prepare(json, mode, error);
    if (!text) {
        return ZYN_STATUS_CONFIG_FAILED;
    }
    if (handle_ != nullptr) {
        library_->Destroy(&handle_);
    }
    uint32_t status = library_->Create(text->c_str(), &handle_);
    if (status == ZYN_STATUS_SUCCESS && handle_ == nullptr) {
        status = ZYN_STATUS_CONFIG_FAILED;  // the automatic selection could not pick a type
    }
    if (status != ZYN_STATUS_SUCCESS) {
        if (handle_ != nullptr) {
            library_->Destroy(&handle_);
        }
        error = explain(status, *text);
        recreateLastGood();
        return status;
    }
    lastGood_ = *text;
    return status;
}

void EffectInstance::recreateLastGood() {
    if (handle_ != nullptr) {
        library_->Destroy(&handle_);
    }
    if (!lastGood_.empty() && library_->Create(lastGood_.c_str(), &handle_) != ZYN_STATUS_SUCCESS &&
        handle_ != nullptr) {
        library_->Destroy(&handle_);
    }
}

uint32_t EffectInstance::update(const std::string& json, int mode, std::string& error) {
    const std::optional<std::string> text = prepare(json, mode, error);
    if (!text) {
        return ZYN_STATUS_CONFIG_FAILED;
    }
    const uint32_t status = library_->Update(&handle_, text->c_str());
    if (status == ZYN_STATUS_SUCCESS && handle_ != nullptr) {
        lastGood_ = *text;
        return status;
    }
    error = explain(status, *text);
    // The refused update took the instance with it: go on with the last good configuration.
    recreateLastGood();
    return status == ZYN_STATUS_SUCCESS ? uint32_t{ZYN_STATUS_CONFIG_FAILED} : status;
}

}  // namespace zyngst
