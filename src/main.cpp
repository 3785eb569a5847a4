// quorvel-inference: serves generation requests for one model directory over
// standard input and output.
#include "engine/engine.h"

int main(int argc, char** argv) { return quorvel::run_engine(argc, argv); }
