# Tests of src/format that build both under Wine (tests/format/CMakeLists.txt) and natively (fuzz/CMakeLists.txt).
set(QV_FORMAT_TEST_SOURCES pe_reader_test.cpp pe_tables_test.cpp ini_text_test.cpp metadata_test.cpp attribute_blob_test.cpp)
