# 32-bit x86: the host's compiler with -m32; its programs run natively.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# The kernel's headers are the same for both, but only the 64-bit path to them is there.
set(CMAKE_C_FLAGS_INIT "-m32 -D_FILE_OFFSET_BITS=64 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
set(ZEL_FOREIGN i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/foreign.cmake)
