// The library's own metadata dispenser, for machines whose runtime gives none: OpenScope reads the file
// with the bounded metadata reader and hands out a scope that answers IMetaDataImport(2) and
// IMetaDataAssemblyImport for the operations the assembly scanner calls. Every other operation answers
// E_NOTIMPL. Pointers the scope hands out (keys, blobs, signatures, names) live as long as the scope.
//
// Trusts nothing in the file. A file that is no PE image, or an image without a CLI header, is
// COR_E_BADIMAGEFORMAT (the ordinary "not an assembly"); metadata that does not hold together is
// CLDB_E_FILE_CORRUPT with a description in the thread's error object.
#pragma once

#include <windows.h>

#include <cor.h>

HRESULT CreateBuiltInDispenser(IMetaDataDispenser** ppDispenser);
