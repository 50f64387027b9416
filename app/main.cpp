// tessara-render: renders a panorama project or an equirect image to the
// outputs its command line selects. Any failure ends in one "Error (...)" line
// on standard error and exit status -1.
#include <cstdio>
#include <exception>

#include "app/JobEntry.h"

int main(int argc, char** argv)
{
    try {
        return jobEntry(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", failureReport(e).c_str());
    } catch (...) {
        std::fprintf(stderr, "Error (unknown): an exception of unknown type\n");
    }
    return -1;
}
