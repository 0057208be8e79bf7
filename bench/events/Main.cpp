#include "Figures.h"

int main(int argc, char** argv) {
    return ktr::bench::run(argc, argv, ktr::bench::intakeFigures());
}
