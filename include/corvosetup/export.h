// libcorvosetup: the mark of everything the library exports.
#pragma once

#define CORVO_API __attribute__((visibility("default")))
