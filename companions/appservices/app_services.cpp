#include "app_services.h"

#include "app_folders.h"
#include "inc/com_boundary.h"
#include "inc/com_ptr.h"

namespace {

// Hands the text that answer() works out through a BSTR out-parameter, which is null on failure.
template <class Answer> HRESULT Reply(BSTR* out, Answer&& answer) {
    if (!out)
        return E_POINTER;
    *out = nullptr;
    return qv::com_boundary([&] { return qv::copy_text_out(std::wstring(answer()), out); });
}

} // namespace

STDMETHODIMP CQvAppServices::GetSupportFolder(BSTR* folder) {
    return Reply(folder, appservices::SupportFolder);
}

STDMETHODIMP CQvAppServices::GetProgramsFolder(BSTR* folder) {
    return Reply(folder, appservices::ProgramsFolder);
}

STDMETHODIMP CQvAppServices::GetPath(long selector, BSTR* path) {
    if (path && selector != QvAppPathSettingsDocument) {
        *path = nullptr;
        return E_INVALIDARG;
    }
    return Reply(path, appservices::SettingsDocument);
}

STDMETHODIMP CQvAppServices::GetStrongNameLibrary(BSTR* path) {
    return Reply(path, appservices::StrongNameLibrary);
}
