// CScannedPE: a PE image of the static scan together with the attempt to load the file as an assembly.
#pragma once

#include "image/pe_images.h"
#include "inc/com_ptr.h"

#include <string>

class CScannedPE : public CPEImage {
public:
    explicit CScannedPE(const std::wstring& path);

    // The assembly loaded from this file (its IDotNetAssembly), or null for a plain image. A load that
    // failed for another reason than "not an assembly" leaves its description in AssemblyError.
    IUnknown* Assembly() const { return m_pAssembly.get(); }
    const ImageErrorRecord& AssemblyError() const { return m_assemblyError; }
    // Hands out a reference to the assembly; leaves out as it was when there is none.
    void GetAssembly(IUnknown** out) const {
        if (m_pAssembly)
            m_pAssembly.copy_to(out);
    }

private:
    qv::com_ptr<IUnknown> m_pAssembly;
    ImageErrorRecord m_assemblyError;
};
