extern "C" int NeededAnswer();
extern "C" int NeedingAnswer() {
    return NeededAnswer() + 1;
}
