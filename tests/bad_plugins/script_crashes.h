// The steps that end the process; script.h says what each does.
#pragma once

namespace scripted {

void WriteNowhere();
void CallNowhere();
void DivideByZero();
void CrashInMalloc();
void SpoilHeap();
void OverflowStack();

}  // namespace scripted
