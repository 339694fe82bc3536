/* How the parts of the C program call the library and tell what they found. */
#ifndef CALLS_H
#define CALLS_H

/* Notes that the function is called, for the check that none was left out. */
void noteCall(const char* name);
#define CALL(function) (noteCall(#function), function)

void expectThat(int holds, const char* what, const char* file, int line);
#define EXPECT(condition) expectThat(condition, #condition, __FILE__, __LINE__)

void useProcess(void);
void useLifecycle(void);
void useRegistry(void);
void useBlocks(void);
void useTarget(void);
void useBoards(void);
void useMemory(void);
void useLines(void);

#endif
