// vel crypt: whole-file encryption with a pass phrase.
//
//   vel crypt encrypt FILE [--ext EXT] [--keep-name] [--pass-file F]
//   vel crypt decrypt FILE [--ext EXT] [--pass-file F]
//
// The pass phrase is taken as raw bytes from --pass-file (the whole file),
// else from the terminal without echo (one line), else from standard input
// (all of it); never from the command line, where other users could see it.
// Prints the name of the file written and exits 0; prints nothing and exits
// 1 when no file was written (missing source, wrong pass phrase); exits 2
// with the message when the operation fails. Message boxes go to stderr.
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "Commands.h"
#include "vel/Cryption.h"
#include "vel/rtl/Messages.h"

namespace {

struct TCryptArgs {
  std::string File;
  std::string Ext;
  std::string PassFile;
  bool KeepName = false;
};

std::string ReadPassPhrase(const std::string& PassFile) {
  if (!PassFile.empty()) {
    std::ifstream F(PassFile, std::ios::binary);
    if (!F) throw std::runtime_error("cannot read the pass phrase file " + PassFile);
    return std::string(std::istreambuf_iterator<char>(F), {});
  }
  if (::isatty(STDIN_FILENO)) {
    termios Old{};
    const bool HaveTerm = ::tcgetattr(STDIN_FILENO, &Old) == 0;
    if (HaveTerm) {
      termios Quiet = Old;
      Quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
      ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &Quiet);
    }
    std::fputs("Pass phrase: ", stderr);
    std::fflush(stderr);
    std::string Line;
    std::getline(std::cin, Line);
    if (HaveTerm) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &Old);
    std::fputs("\n", stderr);
    return Line;
  }
  return std::string(std::istreambuf_iterator<char>(std::cin), {});
}

int Run(const TCryptArgs& A, bool Encrypt) {
  auto Reported = std::make_shared<bool>(false);
  vel::SetDialogSink([Reported](const std::string& Text, const std::string&, vel::UINT) {
    std::fprintf(stderr, "vel: %s\n", Text.c_str());
    *Reported = true;
    return vel::IDOK;
  });
  std::string Result;
  try {
    std::string Pass = ReadPassPhrase(A.PassFile);
    Result = Encrypt ? vel::EncryptFile(A.File, Pass, A.Ext, A.KeepName)
                     : vel::DecryptFile(A.File, Pass, A.Ext);
    std::fill(Pass.begin(), Pass.end(), '\0');
  } catch (const std::exception& E) {
    // An encryption failure has been shown by its message box already.
    if (!*Reported) std::fprintf(stderr, "vel: %s\n", E.what());
    return 2;
  }
  if (Result.empty()) return 1;
  Result += '\n';
  return vel::tool::WriteStdout(Result.data(), Result.size()) ? 0 : 2;
}

vel::tool::Registration Reg("crypt", "encrypt and decrypt whole files with a pass phrase", [](CLI::App& Sub) {
  Sub.require_subcommand(1);
  for (const bool Encrypt : {true, false}) {
    auto* Cmd = Sub.add_subcommand(Encrypt ? "encrypt" : "decrypt",
                                   Encrypt ? "write an encrypted copy of FILE beside it"
                                           : "write the decrypted content of FILE beside it");
    auto Args = std::make_shared<TCryptArgs>();
    Cmd->add_option("FILE", Args->File, "the file")->required();
    Cmd->add_option("--ext", Args->Ext,
                    Encrypt ? "extension of the output (default: ~ and the source's extension)"
                            : "extension of the output (pass the plain file's extension)");
    Cmd->add_option("--pass-file", Args->PassFile, "read the pass phrase (raw bytes) from this file");
    if (Encrypt) Cmd->add_flag("--keep-name", Args->KeepName, "keep the source's name (else EncryptedFile)");
    Cmd->callback([Args, Encrypt] { vel::tool::Status = Run(*Args, Encrypt); });
  }
});

}  // namespace
