// SPDX-License-Identifier: Apache-2.0
// The fixed test keys. Generated once with OpenSSL and kept as they are, so
// that certificates and signatures made from them are the same on every run
// and every target. Test keys only: the private exponents are public here.
#include "velk/pki/fixed_keys.hpp"

#include <string_view>

#include "velk/host/tlv.hpp"

namespace velk::pki::fixed_keys {
namespace {

RsaKey Key(std::string_view n, std::string_view e, std::string_view d) {
    return RsaKey{host::FromHex(n), host::FromHex(e), host::FromHex(d)};
}

}  // namespace

const RsaKey &Ca1152() {
    static const RsaKey key =
        Key("d9b1bf8c6e8e76a3e9a64deb3e427588818c6e2c91e2888e0774525121365d64"
            "aee2bebcab318e58a7e3aa57510a1e73693225c93c84e110c6d9449c03a5f86a"
            "b7d5d41489fa72dd708ceecf0da26cdae1e836f5140553cb3b01a03f51175d2a"
            "ee103f49ff8bb368bfca7e6a75269c842214dc430df1adaf4bc2f6197549e807"
            "e607210a7a67701dfefc2b0183627163",
            "03",
            "91212a5d9f09a46d466ede9cd42c4e5b010849730bec5b095a4d8c3616243e43"
            "1f41d47dc7765ee5c542718f8b5c144cf0cc1930d30340b5d9e62dbd57c3faf1"
            "cfe3e2b85bfc4c92654fd74ab3cb5118f4d41a1f9af8ceabcc618c4b7c722c4e"
            "d4c73d9175c990fe332d205448f07fceab6c0a9c276f23a41a430f1e004586aa"
            "43d60492326164dbf003ef903b48248b");
    return key;
}

const RsaKey &Ca1024() {
    static const RsaKey key =
        Key("9991d3b5decea54051f1ef8223120dc1420aa5bbae999f7077712d0faa8279be"
            "128c7f1283fd6cdcc13099ba61fad0aedb28bab46bd630fe3df776436bd126d4"
            "0a4e70f610184bb0fedbcf03fbfbd523adc18b6ddfa03c49e22dfdeffdb1991c"
            "76050c6386a75ea754e8b8328a736dcc6b56a2ffe0f153332e747117744fa987",
            "010001",
            "4014b4c618621c5cb994fdff4cc914ca46d7908ebf6dc53535f218fe8785086e"
            "02e97380f368c58b5c65fe4fe2e0b941ad9bd244c516ccbcda78af75b4c0c2b5"
            "64d11760750d53deaabdbe0930510a136d83f881474c6d54ddedac0e7bb5949f"
            "4bc677749dc4729d86c0383b348bcc124ce2506d03219c1499b5267cebb9a549");
    return key;
}

const RsaKey &Issuer1024() {
    static const RsaKey key =
        Key("a796cf5430e6fc7f4308872a0cb63e479c42f6aefaffcc1ec9775c1a7eab4ae4"
            "bf933051139396be670a6a5f01fcfc783b503f5e7865882c51fdb1140294cee7"
            "d85774b34f7ba70f8b10d0306af4d68b095d543667ad208a5282165b89dac60b"
            "58dff288e55be57504b9a7365292e51c86c043962e00a8482b4d7bcd500e2d9b",
            "03",
            "6fb9df8d75ef52ff8205af715dced42fbd81f9c9fcaa8814864f92bc547231ed"
            "d50ccae0b7b7b9d444b19c3f56a8a850278ad4e9a5990572e153cb62ac633499"
            "7c0c482126aca3aa58a22b220c60a03d75fadd52434c155d82634a236f3fe36e"
            "38db5ff3ba5c268c8cd6a503ca1d67d8bf9edb666d03c401dc64a21c6e34371b");
    return key;
}

const RsaKey &Issuer864() {
    static const RsaKey key =
        Key("e66e4cf9391e63ec15761cceeee1852d9aeecd1f20f41cde49d23a5859c70b39"
            "71d9c104ae0092f8d0215b527c48b66fce2179acb2bfab0b2ff1ef4690f02b79"
            "abbf24c0d06f8109bb7048f2a046ae9af89c68e9b5c66255fdac79c4bf72a376"
            "5292f7b7f7be3409b17c1de9",
            "010001",
            "38e587500a507cafb064e79c18d3ca84863aec9f010e058ac5838930838a6835"
            "18ed81815c4d7bfcbfb75ccb3330e90b1644a1bc88addee5e0ca1b0992a72811"
            "11ba3d297cfe6a28ed0f6093774a83870899b88b728d03fcdee6b2f8ecad0319"
            "4e885a9c7817835d51a1fbb9");
    return key;
}

const RsaKey &Issuer744() {
    static const RsaKey key =
        Key("e40e1e6eb44e67e6e35587cb612fdc2f522e9404fff656bb7c060860aa1b10c9"
            "987804074748ad4d934afff49a05856da56c78100280694b971c9c8fa2a18bc2"
            "82f233d878c835ca6c47ab691b82b10f7be5338740277620d1b8d92513",
            "03",
            "9809699f22deefef4239053240ca92ca36c9b803554ee47cfd595aeb1c120b31"
            "105002af84db1e33b787554dbc039a25a29eb831beb7c9d216d699e6a1067147"
            "d3f7f8f009b76489b09e3c59e20a2c881b4c42ec2b3128d02dfe31322b");
    return key;
}

const RsaKey &Icc1024() {
    static const RsaKey key =
        Key("d6e48e3fd7be431f18ccc69c2f17e7a4380c1dde5e2d2686385ba40406202377"
            "76ad4f8733953e87e56333ebce4d6c318135b26de4ae28b903e9090002353640"
            "ef039e0858d5bcb144e52c8cc823aee6b442303cbc9f41fe08e325127994fe5e"
            "d26c09332f246052989ae01d6c4dd404d44daa4c16da7fc1711641bd39c68b29",
            "010001",
            "bd53a8b03ed7f633139a76f16bdc57cdab43a19d24c40ac8fe265f1edc76bc48"
            "a85a9152c0f3a0a0024da09504b1d9bcd3e6074a22cbfe3ce36110f8dcf91cce"
            "033a6b8eb8d333f5926806bc1846b5255d4c8df247da1e8268058496216d3228"
            "86f6f0167110686a3d6a63a27da1dfadc05411070e464ce72a1521f951b7ff31");
    return key;
}

const RsaKey &Icc768() {
    static const RsaKey key =
        Key("b8acd97e8f125448d804d2120c9947c573d5c39993d290902af1c3be7d6501f3"
            "ecc8abd01b3413af94806b208e884b639a7219099c88a67d15f224b0cb6da05d"
            "146b75b0df96499ee50837e0e04d366998e61dc8d91626bec686af4ba6a35a01",
            "03",
            "7b1de6545f618d85e5588c0c08662fd8f7e3d7bbb7e1b5b571f6827efe4356a2"
            "9ddb1d3567780d1fb8559cc05f0587969a535da98fd1921d1dee6853fce5b9af"
            "21407b5779c07b11fb94f9f40c88db31164d2144e8639b0471fba7fe690af983");
    return key;
}

const RsaKey &Icc688() {
    static const RsaKey key =
        Key("b59a741180fcc75c36c7f057f25d31437396049dc649eb117a831436df3bcf9f"
            "504b5ca7b826bae2feda8fe3c1fedc6ddfdfed152b02b3226f88ec58e7f1a61a"
            "3a00c4d7812cefdf159c25d90ee4d37752f2ffd5af51",
            "010001",
            "2cbac447e36b5f77390efa05cf6e60c9ea5852fec16e4775e0a5147f877065ed"
            "298bc660911d08ff0c22accff6b4784cf8f25e16a2cd6623cb2704bc14aee12b"
            "a729a6d03ff966565d623d2631c3bb23ff80f6167379");
    return key;
}

}  // namespace velk::pki::fixed_keys
