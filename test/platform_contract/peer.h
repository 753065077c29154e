// Another process of the kit, with which the tests talk in lines: it binds endpoints, answers requests, holds locks
// and dies when it is told to. It runs the same program with the argument "--peer".
#pragma once

#include <memory>
#include <string>
#include <sys/types.h>

// Serves the commands of standard input until its end; the exit status of the process.
//
//   node                          "node NODE": the own node by platform information and module table
//   bind SAP                      "ok", or "errno NUMBER" here and in all other answers
//   send NODE SAP OPCODE HEX      "ok"
//   receive OFFSET COUNT          the next message: "message OPCODE NODE SAP HEX", bytes of the payload from OFFSET
//   answer WAY                    the next request: "request OPCODE NODE SAP HEX" with 32 bytes of the body, after
//                                 the answer. WAY is "echo COUNT", "bytes HEX", "late SECONDS" (answers only then),
//                                 "status NUMBER", "nothing" (an answer without payload), "reject", "silence", or
//                                 "news SAP" (a message to the sender at that sap, then an answer)
//   lock ID, unlock ID            "ok"
//   fork                          "child PID": a forked child that has bound an endpoint of its own and lives on
//   end                           ends by exit, without an answer
//   die                           kills itself, without an answer
int run_peer();

class peer_process
{
public:
    peer_process(pid_t process, int to_peer, int from_peer);
    peer_process(const peer_process &) = delete;
    peer_process &operator=(const peer_process &) = delete;
    ~peer_process();

    void tell(const std::string &command);
    // The next line, or empty when none comes within 30 seconds or the peer has ended.
    std::string answer();
    std::string ask(const std::string &command);
    // Tells it to end or die, and waits until it has.
    void finish(const std::string &command);

private:
    pid_t process_;
    int to_peer_;
    int from_peer_;
    std::string received_;
};

// Null with a reason when it cannot be had.
std::unique_ptr<peer_process> start_peer_on_this_card(std::string &reason_out);
std::unique_ptr<peer_process> start_peer_on_other_card(std::string &reason_out);
