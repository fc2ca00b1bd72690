// The bionic header that <cutils/properties.h> includes and Debian does not ship: only the
// limits, which are the phone's.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
