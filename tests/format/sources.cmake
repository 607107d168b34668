# Tests of src/format that build anywhere: under Wine in the cross build (tests/format/CMakeLists.txt)
# and natively with sanitizers (fuzz/CMakeLists.txt). Relative to tests/format.
set(QV_FORMAT_TEST_SOURCES
    byte_span_test.cpp
    pe_classify_test.cpp
    pe_image_test.cpp
    pe_robustness_test.cpp
    section_map_test.cpp
    pe_resources_test.cpp)
