#include "corvosetup/cfg_file.h"

#include "foundation/document.h"
#include "foundation/guard.h"

namespace {

enum Source { kNone = 0, kService = 1, kFile = 2 };

}  // namespace

CfgFile::CfgFile(std::string path) : cfg_flag(kNone), path(std::move(path)) {
    if (vesta_to_json() != 0) file_to_json();
}

CfgFile::~CfgFile() = default;

bool CfgFile::good() {
    return cfg_flag != kNone;
}

int CfgFile::get_cfg_flag() {
    return cfg_flag;
}

void CfgFile::operator>>(Json::Value& out) {
    corvo::guarded_void([&] { out = root; });
}

int CfgFile::vesta_to_json() {
    const int rc = corvo::document_from_service(path, root);
    if (rc == corvo::kOk) cfg_flag = kService;
    return rc;
}

int CfgFile::file_to_json() {
    std::string text;
    int rc = corvo::text_of_document(path, text);
    if (rc == corvo::kOk) rc = corvo::parse_document(text, root);
    if (rc == corvo::kOk) cfg_flag = kFile;
    return rc;
}
