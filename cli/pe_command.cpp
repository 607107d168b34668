// qvscan pe FILE: the server's record of one Windows image, through ScanUtil's PE.
#include "commands.h"

#include "error_text.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "records.h"
#include "text_output.h"

namespace qvscan {

namespace {

const json_layout one_line{};

void print_record(const record& r) {
    std::string langs;
    for (long id : r.languages)
        langs += (langs.empty() ? "" : " ") + std::to_string(id);
    table t({"name", utf8(r.name)});
    t.add({"folder", utf8(r.path)});
    t.add({"version", utf8(version_text(r.major, r.minor))});
    t.add({"size", std::to_string(r.size)});
    t.add({"modified", utf8(time_text(r.modified))});
    t.add({"languages", langs});
    t.add({"destination", utf8(r.destPath)});
    t.add({"shared", r.shared ? "yes" : "no"});
    t.add({"self-registering", r.selfRegistering ? "yes" : "no"});
    out(t.render());
}

} // namespace

int run_pe(const server_dll& dll, const options& o) {
    const std::wstring file = full_path(o.file);
    auto util = dll.create<IScanUtil>(CLSID_ScanUtil, IID_IScanUtil);
    qv::bstr path(file);
    qv::com_ptr<IDepFile> pe;
    check_hr(util->get_PE(path.get(), pe.put()));
    if (!pe) {
        if (o.json)
            print_json({{"file", utf8(file)}, {"pe", nullptr}}, one_line);
        if (!exists(file)) {
            err("qvscan: " + utf8(file) + ": " + not_a_file(file) + "\n");
            return ExitNoFile;
        }
        if (!o.json)
            out(utf8(file) + ": not a PE image\n");
        return ExitOk;
    }
    const record r = read_record(pe.get());
    if (o.json)
        print_json({{"file", utf8(file)}, {"pe", record_json(r)}}, one_line);
    else
        print_record(r);
    return ExitOk;
}

} // namespace qvscan
