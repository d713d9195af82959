#pragma once

// Runs the deleteLater() calls posted so far, and nothing else: handles are owned by
// shared pointers whose deleter calls deleteLater(), so a test that drops one and wants it
// gone (or its destruction checked under the sanitizers) calls this.
void flushDeferredDeletes();
