#pragma once

// Symbol visibility for the host libraries and the plug-in. Everything is
// built hidden by default; only what carries VLM_EXPORT crosses a library edge.
#define VLM_EXPORT __attribute__((visibility("default")))
