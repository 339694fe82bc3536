#pragma once

/** Prints the machine that the model runs on. */
void printMachine();

/** Prints the boards that the model's setup blocks found and registered. */
void printBoards();

/** Prints what went through the model's signals, and whether it has left anything in the registry. */
void printOutcome();
