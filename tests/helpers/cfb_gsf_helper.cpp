// Writes and lists compound files with libgsf, so that the structured-storage
// tests can check the engine against an independent implementation.
//
//   cfb_gsf_helper write FILE SECTOR < SPEC   SPEC lines: "D path" (storage)
//                                             or "F path size seed" (stream)
//   cfb_gsf_helper list FILE                  one line per element, depth
//                                             first: path TAB type TAB size
//                                             TAB adler32 ("-" for storages)
//
// Paths use "/"; stream byte j is (j * 131 + seed * 7 + (j >> 8)) & 0xFF.
#include <gsf/gsf.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

static int Fail(const char* What, GError* Err) {
  std::fprintf(stderr, "%s: %s\n", What, Err ? Err->message : "failed");
  return 1;
}

static int Write(const char* Path, unsigned Sector) {
  GError* Err = nullptr;
  GsfOutput* Sink = gsf_output_stdio_new(Path, &Err);
  if (!Sink) return Fail("gsf_output_stdio_new", Err);
  GsfOutfile* Root = gsf_outfile_msole_new_full(Sink, Sector, 64);
  g_object_unref(Sink);
  if (!Root) return Fail("gsf_outfile_msole_new_full", nullptr);
  std::map<std::string, GsfOutfile*> Dirs{{"", Root}};
  std::vector<GsfOutfile*> Order;
  char Kind[4];
  char Name[1024];
  while (std::scanf("%3s %1023s", Kind, Name) == 2) {
    std::string P = Name;
    size_t Slash = P.rfind('/');
    std::string Parent = Slash == std::string::npos ? "" : P.substr(0, Slash);
    std::string Leaf = Slash == std::string::npos ? P : P.substr(Slash + 1);
    GsfOutfile* Dir = Dirs.at(Parent);
    if (Kind[0] == 'D') {
      GsfOutput* D = gsf_outfile_new_child(Dir, Leaf.c_str(), TRUE);
      Dirs[P] = GSF_OUTFILE(D);
      Order.push_back(GSF_OUTFILE(D));
      continue;
    }
    unsigned long Size = 0, Seed = 0;
    if (std::scanf("%lu %lu", &Size, &Seed) != 2) return Fail("layout", nullptr);
    GsfOutput* S = gsf_outfile_new_child(Dir, Leaf.c_str(), FALSE);
    std::vector<guint8> Buf(Size);
    for (unsigned long J = 0; J < Size; ++J)
      Buf[J] = static_cast<guint8>((J * 131 + Seed * 7 + (J >> 8)) & 0xFF);
    if (Size && !gsf_output_write(S, Size, Buf.data())) return Fail("gsf_output_write", nullptr);
    gsf_output_close(S);
    g_object_unref(S);
  }
  for (auto It = Order.rbegin(); It != Order.rend(); ++It) {
    gsf_output_close(GSF_OUTPUT(*It));
    g_object_unref(*It);
  }
  if (!gsf_output_close(GSF_OUTPUT(Root))) return Fail("gsf_output_close", nullptr);
  g_object_unref(Root);
  return 0;
}

static uint32_t Adler(uint32_t Sum, const guint8* P, size_t N) {
  uint32_t A = Sum & 0xFFFF, B = Sum >> 16;
  while (N--) {
    A = (A + *P++) % 65521;
    B = (B + A) % 65521;
  }
  return B << 16 | A;
}

static void List(GsfInfile* Dir, const std::string& Prefix) {
  int N = gsf_infile_num_children(Dir);
  for (int I = 0; I < N; ++I) {
    std::string Path = Prefix + gsf_infile_name_by_index(Dir, I);
    GsfInput* Child = gsf_infile_child_by_index(Dir, I);
    if (GSF_IS_INFILE(Child) && gsf_infile_num_children(GSF_INFILE(Child)) >= 0) {
      std::printf("%s\t1\t0\t-\n", Path.c_str());
      List(GSF_INFILE(Child), Path + "/");
    } else {
      gsf_off_t Size = gsf_input_size(Child);
      uint32_t Sum = 1;
      gsf_off_t Pos = 0;
      while (Pos < Size) {
        size_t Want = static_cast<size_t>(Size - Pos < 65536 ? Size - Pos : 65536);
        const guint8* Data = gsf_input_read(Child, Want, nullptr);
        if (!Data) break;
        Sum = Adler(Sum, Data, Want);
        Pos += static_cast<gsf_off_t>(Want);
      }
      std::printf("%s\t2\t%lld\t%08x\n", Path.c_str(), static_cast<long long>(Size), Sum);
    }
    g_object_unref(Child);
  }
}

int main(int Argc, char** Argv) {
  if (Argc >= 4 && !std::strcmp(Argv[1], "write"))
    return Write(Argv[2], static_cast<unsigned>(std::atoi(Argv[3])));
  if (Argc >= 3 && !std::strcmp(Argv[1], "list")) {
    GError* Err = nullptr;
    GsfInput* Src = gsf_input_stdio_new(Argv[2], &Err);
    if (!Src) return Fail("gsf_input_stdio_new", Err);
    GsfInfile* Root = gsf_infile_msole_new(Src, &Err);
    g_object_unref(Src);
    if (!Root) return Fail("gsf_infile_msole_new", Err);
    List(Root, "");
    g_object_unref(Root);
    return 0;
  }
  std::fprintf(stderr, "usage: cfb_gsf_helper write FILE SECTOR < SPEC | list FILE\n");
  return 2;
}
