#include "Figures.h"
#include "support/LoadedPlugins.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        const ktr::bench::LoadedPlugins plugins;
        std::vector<ktr::bench::Figure> figures;
        for (const auto& subject : {ktr::bench::deliveryFigures, ktr::bench::latencyFigures,
                                    ktr::bench::intakeFigures, ktr::bench::overloadFigures})
            for (ktr::bench::Figure& figure : subject())
                figures.push_back(std::move(figure));
        return ktr::bench::run(argc, argv, std::move(figures));
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
