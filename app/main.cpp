// tessara-render: renders a panorama project or an equirect image to the
// outputs its command line selects. Any failure ends in one "Error (...)" line
// on standard error and exit status -1.
#include "app/JobEntry.h"

int main(int argc, char** argv) { return jobEntry(argc, argv); }
