# The bundled shop orders from Python: single reads, then every record of a stream into pandas.
# Run from examples/ with the module on PYTHONPATH (build-example/python).
import ostrel

store = ostrel.SchemaStore.from_descriptor_set(open("shop.desc", "rb").read())
order = store.message("shop.Order")

# One record: values by property path, without parsing the rest of it.
record = open("order1.bin", "rb").read()
print(order.get(record, "customer.name"), order.get(record, "items[1].sku"), order.get(record, "state"))
print(order.get(record, "attributes"), order.get(record, "voucher"))

# Many records (orders.bin holds three, each preceded by its length): one column per path.
table = order.project("orders.bin", ["id", "customer.name", "state", "items[*].price"])
frame = table.to_pandas()
frame["total"] = frame.pop("items[*].price").map(sum)
print(frame)
print(frame.groupby("customer.name")["total"].sum())
