// Entry point of zor_service: the service body (service_main.h) with the
// product's intervals and time-outs.
#include "service_main.h"

int main(int argc, char** argv) { return zor_service_run(argc, argv, zor_timing{}); }
