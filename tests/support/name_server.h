// A name server of the tests: in a program with this source the look-up of a name that ends in
// ".silent" lasts until it is answered, and "one+two" has the addresses one and two. Other names
// are looked up as ever.
#pragma once

namespace kvl {

class CNameServer {
 public:
  // Look-ups that were begun. Any thread.
  static int Begun();

  // Until Hush every look-up, one under way included, finds this machine.
  static void Answer();
  static void Hush();
};

}  // namespace kvl
