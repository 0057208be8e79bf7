#include "Figures.h"

#include "ktr/common/Logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/NullChannel.h>

#include <iostream>

using namespace ktr::bench;

int main(int argc, char** argv) {
    ktr::cachedLogger().setLevel(Poco::Message::PRIO_WARNING);
    // wrk breaks off its last requests, and each of them is worth a line
    ktr::cachedLogger().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    try {
        std::vector<Figure> figures = rateFigures();
        for (Figure& figure : idleFigures())
            figures.push_back(std::move(figure));
        return run(argc, argv, std::move(figures));
    } catch (const Poco::Exception& e) {
        std::cerr << "ketra-bench-reports: " << e.displayText() << std::endl;
        return 1;
    }
}
