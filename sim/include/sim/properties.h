// SPDX-License-Identifier: Apache-2.0
// Host property store. Values come from libbase's in-process store; the
// environment variable SIM_PROPERTIES ("key=value,key=value") seeds it before
// the first read, so that a process can start with a property set.
#pragma once

namespace sim {
namespace properties {

constexpr const char* kEnvironment = "SIM_PROPERTIES";

}  // namespace properties
}  // namespace sim
