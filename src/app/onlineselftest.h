#pragma once

namespace lofthaven {

class SelfTest;

// The online round trip of the self-test, against the configured service and without signing
// in: sends hello-lofthaven.txt and the zipped Trip folder (expiry 1 h), resolves both codes,
// compares metadata, downloads (the file once more resuming from byte 10), compares bytes (the
// archive after unzipping) and deletes both transfers. Called on the self-test's own thread;
// the network work runs on the main thread's event loop, which that thread waits for.
void runOnlineSelfTest(SelfTest &test);

} // namespace lofthaven
