// Says that it runs, and nothing else. Linked with the libraries that RQWorkerU is linked with: what is left
// of a worker's start when the worker is taken away.
#include <unistd.h>

int main() {
    return write(1, "x", 1) == 1 ? 0 : 1;
}
