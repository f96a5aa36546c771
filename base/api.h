// Export control: everything is hidden by default; only definitions marked KEP_API
// (and listed in cmake/exports.txt, which becomes the linker's version script)
// reach the dynamic symbol table.
#pragma once

#define KEP_API extern "C" __attribute__((visibility("default")))
