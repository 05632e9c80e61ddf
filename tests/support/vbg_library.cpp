#include "support/vbg_library.h"

#include <dlfcn.h>

#include <stdexcept>

#include "support/test_paths.h"

namespace zyn_test {

VbgLibrary::VbgLibrary() {
    void* handle = dlopen(LibraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(std::string("dlopen failed: ") + dlerror());
    }
    const auto resolve = [&](auto& member, const char* name) {
        member = reinterpret_cast<std::remove_reference_t<decltype(member)>>(dlsym(handle, name));
        if (member == nullptr) {
            throw std::runtime_error(std::string("missing export ") + name);
        }
    };
#define ZYN_TEST_RESOLVE(member, name) resolve(member, #name);
    ZYN_TEST_EXPORTS(ZYN_TEST_RESOLVE)
#undef ZYN_TEST_RESOLVE
}

}  // namespace zyn_test
