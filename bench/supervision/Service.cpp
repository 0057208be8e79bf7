// A service that asks for nothing and does nothing.
#include <unistd.h>

int main() {
    for (;;)
        pause();
}
