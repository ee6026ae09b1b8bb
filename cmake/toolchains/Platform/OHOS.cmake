# What a CMake that does not know OpenHarmony needs to be told: shared libraries are as on Linux.
include(Platform/Linux)
