#include "ossilar/cli/app.h"

int main(int argc, char** argv) { return ossilar::cli::run(argc, argv); }
