// What the launch bench launches: a static program that exits at once, or with an argument stays
// until a signal ends it.

#include <unistd.h>

int main(int argc, char **) {
    while (argc > 1) {
        pause();
    }
    return 0;
}
