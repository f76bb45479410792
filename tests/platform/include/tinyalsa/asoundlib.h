// One header for all of tinyalsa.

#pragma once

#include <tinyalsa/mixer.h>
