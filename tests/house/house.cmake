# Tests of what stands around the code. Included by tests/CMakeLists.txt.
target_sources(test_house PRIVATE ${CMAKE_SOURCE_DIR}/bench/support/figures.cpp)
