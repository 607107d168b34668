# Sources of the platform-free readers, relative to src/format. Shared by the cross build
# (src/format/CMakeLists.txt) and the native sanitizer and fuzzing build (fuzz/CMakeLists.txt).
set(QV_FORMAT_SOURCES
    pe/pe_image.cpp
    pe/pe_tables.cpp
    pe/section_map.cpp
    pe/resources.cpp
    ini/ini_text.cpp
    metadata/metadata.cpp
    metadata/attribute_blob.cpp)
