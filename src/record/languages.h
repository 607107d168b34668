// CLanguages: the language identifiers of one dependency file record, a collection of plain 32-bit
// values behind ILanguages. The record fills it from the file's version resource; clients read it.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_collection.h"

class CLanguages : public qv::CRefCollectionImpl<long, ILanguages, &LIBID_QVWISCANNERSLib,
                                                 qv::simple_type_adapter<long>, &IID_ILanguages> {};
