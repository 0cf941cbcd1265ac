// libcorvosetup: configuration documents.
#pragma once

#include <json/value.h>
#include <string>

#include "corvosetup/export.h"

// One document, loaded at construction: from the configuration service ("vesta", method "read_json", with the
// path as the key), and when that fails from the file. Each source that fails writes one ERROR line.
//
//     CfgFile file("/etc/networkmanagement/qos.json");
//     Json::Value document;
//     if (file.good()) file >> document;
//
// Any JSON value can be a document, null included: test its type before reading members.
//
// Threading: objects are not shared between threads; any number of threads may each have their own. A load
// can take the service's 5 seconds, during which the calling thread cannot be cancelled.
class CORVO_API CfgFile {  // sizeof 80
    int cfg_flag;          //  0 where the document is from: 0 nowhere, 1 the service, 2 the file
    std::string path;      //  8 as given
    Json::Value root;      // 40 the document; null until loaded

public:
    // Never fails; ask good().
    CfgFile(std::string path);
    ~CfgFile();

    // Whether a document was loaded. The service may answer without one: that is good, and null.
    bool good();
    int get_cfg_flag();

    // Copies the document to `out`.
    void operator>>(Json::Value& out);

    // Load again from one source. A failure leaves the flag; only a file that does not parse clears the
    // document. 0, or -3022 no call buffer, -3023 the call failed, -3024 empty reply, -3019 the reply or the
    // file does not parse or the service refused, -3015 the file cannot be opened. A directory opens and does
    // not parse.
    int vesta_to_json();
    int file_to_json();
};
