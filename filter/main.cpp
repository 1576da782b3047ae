#include "filter/filter_main.h"

int main(int argc, char** argv) { return kelvoFilterMain(argc, argv); }
