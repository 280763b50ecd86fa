#include "tools/device_driver.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/hwcontext_vaapi.h>
#include <libavutil/hwcontext_vdpau.h>
}

namespace mediatools {

namespace {

std::string vaapi_driver(const AVHWDeviceContext* device) {
    const auto* vaapi = static_cast<const AVVAAPIDeviceContext*>(device->hwctx);
    const char* vendor = vaQueryVendorString(vaapi->display);
    return vendor != nullptr ? vendor : "";
}

std::string vdpau_driver(const AVHWDeviceContext* device) {
    const auto* vdpau = static_cast<const AVVDPAUDeviceContext*>(device->hwctx);
    void* get_information = nullptr;
    void* get_api_version = nullptr;
    const char* information = nullptr;
    uint32_t api = 0;
    if (vdpau->get_proc_address(vdpau->device, VDP_FUNC_ID_GET_INFORMATION_STRING,
                                &get_information) != VDP_STATUS_OK ||
        reinterpret_cast<VdpGetInformationString*>(get_information)(&information) !=
            VDP_STATUS_OK ||
        information == nullptr) {
        return "";
    }
    if (vdpau->get_proc_address(vdpau->device, VDP_FUNC_ID_GET_API_VERSION, &get_api_version) ==
            VDP_STATUS_OK &&
        reinterpret_cast<VdpGetApiVersion*>(get_api_version)(&api) == VDP_STATUS_OK) {
        return std::string(information) + ", VDPAU API " + std::to_string(api);
    }
    return information;
}

// FFmpeg loads NVIDIA's driver library itself, privately: it is asked by name, and its entry
// points looked up, without loading anything new.
std::string cuda_driver() {
    void* cuda = dlopen("libcuda.so.1", RTLD_NOW | RTLD_NOLOAD);
    if (cuda == nullptr) {
        return "";
    }
    using DriverGetVersion = int (*)(int*);
    using DeviceGetName = int (*)(char*, int, int);
    auto get_version = reinterpret_cast<DriverGetVersion>(dlsym(cuda, "cuDriverGetVersion"));
    auto get_name = reinterpret_cast<DeviceGetName>(dlsym(cuda, "cuDeviceGetName"));
    int version = 0;
    char name[128] = "NVIDIA GPU";
    std::string driver;
    if (get_version != nullptr && get_version(&version) == 0) {
        if (get_name != nullptr) {
            get_name(name, sizeof(name), 0);  // the default device, the one the service opens
        }
        driver = std::string(name) + ", CUDA driver " + std::to_string(version / 1000) + "." +
                 std::to_string(version % 1000 / 10);
    }
    dlclose(cuda);
    return driver;
}

}  // namespace

std::string device_driver(AVBufferRef* device) {
    const auto* context =
        device != nullptr ? reinterpret_cast<AVHWDeviceContext*>(device->data) : nullptr;
    if (context == nullptr) {
        return "";
    }
    switch (context->type) {
        case AV_HWDEVICE_TYPE_VAAPI:
            return vaapi_driver(context);
        case AV_HWDEVICE_TYPE_VDPAU:
            return vdpau_driver(context);
        case AV_HWDEVICE_TYPE_CUDA:
            return cuda_driver();
        default:
            return "";
    }
}

}  // namespace mediatools
