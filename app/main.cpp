// Temporary entry: brings up the context and prints the GL report.
#include <cstdio>

#include "libglutil/QtContext.h"

int main(int argc, char** argv)
{
    std::printf("version: %s\n", "21.01.5008");
    std::fflush(stdout);
    GLContextSession session(argc, argv);
    std::printf("%s", glInfoReport().c_str());
    return 0;
}
