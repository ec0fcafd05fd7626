#include "app/Varnock.h"

int main(int argc, char** argv) { return runVarnock(argc, argv); }
