from sites import topic

def test_a_row_of_a_member_is_a_retained_message(broker, make_client, make_site, start_bridge):
    hall = make_site(b"hall1")
    member = hall.member()
    member.set(b"plant", b"status", b"temperature", b"81")
    start_bridge(hall)
    client = make_client(broker, "#")
    assert client.gets(topic(b"hall1", b"status", b"temperature"), b"81")
    assert client.gets("varnix/hall1/$state", b"1")

def test_a_row_arrives_in_the_database_of_its_site(broker, make_site, start_bridge):
    one, two = make_site(b"hall1"), make_site(b"hall2")
    start_bridge(one)
    b = start_bridge(two, "--import", "hall1")
    writer, reader = one.member(), two.member(b"plant@hall1")
    reader.watch(b"plant@hall1", b"status")
    writer.set(b"plant", b"status", b"temperature", b"81")
    assert reader.gets_row(b"plant@hall1", b"status", b"temperature", b"81"), b.lines
    writer.set(b"plant", b"status", b"temperature", b"")
    writer.set(b"plant", b"status", b"next", b"row")
    assert reader.gets_row(b"plant@hall1", b"status", b"temperature", b""), b.lines
