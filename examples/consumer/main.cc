// The smallest user of an installed libVeldHelper: it creates the agent's root and prints
// its name and the library's version.
#include <iostream>

#include "veld/Version.h"
#include "veld/root/Root.h"

int main() {
   auto root = Veld::rootFactory();
   std::cout << root->name() << " " << Veld::libraryVersion() << "\n";
   return 0;
}
