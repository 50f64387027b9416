#pragma once
// Headless start: when no X display is configured (servers, CI), the program
// runs its own private Xvfb for the lifetime of the process.

// Starts a private Xvfb and points DISPLAY at it when DISPLAY is unset or empty;
// does nothing otherwise. When NVIDIA's GLX vendor library is loadable and the
// user has not chosen a vendor, glvnd is told to use it for that server so that
// rendering happens on the GPU. The server is stopped at process exit and dies
// with the process if it is killed. Throws std::runtime_error when no server
// could be started.
void ensureDisplay();

// Stops the private server now (idempotent); also registered with atexit.
void stopPrivateDisplay();

// Points glvnd at `vendorName` (__GLX_VENDOR_LIBRARY_NAME) when that variable
// is unset and `vendorLibrary` can be loaded; returns whether it did. Used for
// the private server with NVIDIA's "libGLX_nvidia.so.0": without the variable
// glvnd would take the vendor of the X server, Mesa's software renderer.
bool selectGlxVendor(const char* vendorLibrary, const char* vendorName);
