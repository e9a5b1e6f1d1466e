// SPDX-License-Identifier: Apache-2.0
// Host stand-in for bionic's <sys/system_properties.h>, which libcutils'
// <cutils/properties.h> includes for the two size limits.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
