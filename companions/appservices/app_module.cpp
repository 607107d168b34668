// QvAppServices.dll: the table of its three classes, handed out by the exports of library_exports.cpp.
#include "app_services.h"
#include "dep_file_group.h"
#include "dep_file_groups.h"
#include "library_exports.h"

std::span<const qv::library_class> companion::LibraryClasses() {
    static const qv::library_class classes[] = {
        {&CLSID_QvAppServices, &qv::creator<CQvAppServices>::CreateInstance},
        {&CLSID_QvDepFileGroup, &qv::creator<CQvDepFileGroup>::CreateInstance},
        {&CLSID_QvDepFileGroups, &qv::creator<CQvDepFileGroups>::CreateInstance},
    };
    return classes;
}
