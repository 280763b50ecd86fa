#pragma once

// Which driver serves an opened hardware device, in the driver's own words, as vainfo and
// vdpauinfo report it.

#include <string>

extern "C" {
#include <libavutil/buffer.h>
}

namespace mediatools {

// "Intel iHD driver ... 23.1.1" (VA-API's vendor string), "OpenGL/VAAPI backend for VDPAU, VDPAU
// API 1", "NVIDIA GeForce RTX 3060, CUDA driver 12.4"; empty where the device does not say.
std::string device_driver(AVBufferRef* device);

}  // namespace mediatools
