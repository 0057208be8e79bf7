#include "Figures.h"

#include <sys/stat.h>

int main(int argc, char** argv) {
    // what a host launches must not be writable by others
    umask(022);
    std::vector<ktr::bench::Figure> figures = ktr::bench::hostFigures();
    for (const ktr::bench::Figure& figure : ktr::bench::crowdFigures())
        figures.push_back(figure);
    return ktr::bench::run(argc, argv, figures);
}
