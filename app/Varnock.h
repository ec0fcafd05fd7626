#pragma once

/// The whole run of the varnock command; returns the process exit status (always 0).
int runVarnock(int argc, char** argv);
