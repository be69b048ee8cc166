# The flags of a Release build, unless a toolchain or the caller sets others. The agent is tested and
# measured with -O2.
set(CMAKE_C_FLAGS_RELEASE_INIT "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELEASE_INIT "-O2 -DNDEBUG")
