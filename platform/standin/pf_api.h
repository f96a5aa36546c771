// Export control of the stand-in: everything is hidden by default; only definitions
// marked PF_API (and listed in cmake/platform-exports.txt, which becomes the linker's
// version script) reach the dynamic symbol table.
#pragma once

#define PF_API extern "C" __attribute__((visibility("default")))
