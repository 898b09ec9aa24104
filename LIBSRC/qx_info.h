// Processor description from the CPUID signature and feature flags, kept apart
// from the instruction so that tests can drive it with chosen values.
#pragma once

#include "kvxpx.h"

namespace qx {

void describe_processor(unsigned signature, unsigned features, QXProcessorInfo* info) noexcept;

// CPUID leaf 1 (signature in EAX, feature flags in EDX); false without CPUID.
bool read_cpuid(unsigned* signature, unsigned* features) noexcept;

}  // namespace qx
