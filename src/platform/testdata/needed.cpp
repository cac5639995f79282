extern "C" int NeededAnswer() {
    return 42;
}
