// SPDX-License-Identifier: Apache-2.0
// What the relay is measured against: the least that delivers an event. Connects to the socket named by its
// first argument, writes a fixed event of the usual size, reads the answer and ends.
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const char event[] =
    "{\"schema\":1,\"agent\":\"claude\",\"session_id\":\"claude-4242\",\"state\":\"working\","
    "\"timestamp\":1731790000.250000,\"pid\":4242,\"cwd\":\"\\/home\\/user\\/project\"}";

int main(int count, char** arguments) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (count < 2 || strlen(arguments[1]) >= sizeof address.sun_path) return 2;
  strcpy(address.sun_path, arguments[1]);
  const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(connection, (const struct sockaddr*)&address, sizeof address) != 0) return 1;
  if (write(connection, event, sizeof event - 1) != (ssize_t)(sizeof event - 1)) return 1;
  char answer[64];
  return read(connection, answer, sizeof answer) > 0 ? 0 : 1;
}
